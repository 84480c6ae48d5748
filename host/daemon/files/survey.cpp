#include "host/daemon/files/survey.h"

#include <cerrno>
#include <system_error>
#include <tuple>

#include "host/daemon/files/images.h"
#include "host/osal/log.h"

namespace tarnd {

namespace {

class Surveyor {
public:
    Surveyor(const host::procfs::Procfs &proc, Digests &digests, const host::Check &check)
        : proc_(proc), digests_(digests), check_(check) {}

    void Add(uint32_t pid) {
        try {
            const std::vector<Image> images = ImagesOf(proc_, pid);
            survey_.processes += !images.empty();
            for (const Image &image : images) {
                if (seen_.insert({image.device, image.inode, image.path}).second) {
                    Add(pid, image);
                }
            }
        } catch (const std::system_error &error) {
            if (error.code().value() == EACCES) {
                ++survey_.hidden;
            } else if (error.code().value() != ESRCH) {
                throw;
            }
        }
    }

    const Survey &Result() const { return survey_; }

private:
    void Add(uint32_t pid, const Image &image) {
        check_();
        host::Descriptor file;
        try {
            file = OpenImage(proc_, pid, image);
        } catch (const std::system_error &error) {
            seen_.erase({image.device, image.inode, image.path}); // another process may show the same file
            proc_.ReadProcess(pid);                               // one that has ended meanwhile has no file unread
            host::Log().debug("measurement: {}", error.what());
            ++survey_.unread;
            return;
        }
        survey_.files[image.name].insert(digests_.Of(file, check_));
    }

    const host::procfs::Procfs &proc_;
    Digests &digests_;
    const host::Check &check_;
    std::set<std::tuple<std::string, uint64_t, std::string>> seen_;
    Survey survey_;
};

} // namespace

Survey SurveyFiles(const host::procfs::Procfs &proc, Digests &digests, const host::Check &check) {
    Surveyor surveyor(proc, digests, check);
    for (const uint32_t pid : proc.ProcessIds()) {
        check();
        surveyor.Add(pid);
    }
    digests.ForgetUnused();
    return surveyor.Result();
}

} // namespace tarnd
