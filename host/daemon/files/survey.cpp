#include "host/daemon/files/survey.h"

#include <cerrno>
#include <optional>
#include <system_error>
#include <tuple>

#include "host/daemon/files/images.h"
#include "host/osal/log.h"
#include "host/procfs/procfs.h"

namespace tarnd {

namespace {

class Surveyor {
public:
    Surveyor(Digests &digests, const Digests::Check &check) : digests_(digests), check_(check) {}

    void Add(uint32_t pid) {
        try {
            const std::vector<Image> images = ImagesOf(pid);
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
        std::optional<host::Descriptor> file;
        try {
            file.emplace(OpenImage(pid, image));
        } catch (const std::system_error &error) {
            seen_.erase({image.device, image.inode, image.path}); // another process may show the same file
            host::procfs::Procfs().ReadProcess(pid);              // one that has ended meanwhile has no file unread
            host::Log().debug("measurement: {}", error.what());
            ++survey_.unread;
            return;
        }
        survey_.files[image.name].insert(digests_.Of(*file, check_));
    }

    Digests &digests_;
    const Digests::Check &check_;
    std::set<std::tuple<std::string, uint64_t, std::string>> seen_;
    Survey survey_;
};

} // namespace

Survey SurveyFiles(Digests &digests, const Digests::Check &check) {
    Surveyor surveyor(digests, check);
    for (const uint32_t pid : host::procfs::Procfs().ProcessIds()) {
        check();
        surveyor.Add(pid);
    }
    digests.ForgetUnused();
    return surveyor.Result();
}

} // namespace tarnd
