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
    Surveyor(const host::procfs::Procfs &proc, Digests &digests, ReadingBudget budget, const host::Check &check,
             const TakeSurveyed &take)
        : proc_(proc), digests_(digests), budget_(std::move(budget)), check_(check), take_(take) {}

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
        Measure(image.name, file);
    }

    void Measure(const std::string &name, const host::Descriptor &file) {
        const struct stat status = file.Status();
        const auto size = static_cast<uint64_t>(status.st_size);
        const bool tooLarge = budget_.IsTooLarge(size);
        if (tooLarge || !budget_.Take(status.st_uid, size, name.size())) {
            LeaveOut({name, std::nullopt, tooLarge}, status);
            return;
        }
        const std::string digest = digests_.Of(file, status, check_);
        survey_.files[name].insert(digest);
        take_({name, digest});
    }

    // Whoever has one such file may have thousands: the log names the first.
    void LeaveOut(const SurveyedFile &file, const struct stat &status) {
        constexpr uint32_t kMostNamed = 20;
        if (++survey_.leftOut <= kMostNamed) {
            host::Log().warn("measurement: left out: {}: {} bytes of user {} are beyond the budget", file.name,
                             status.st_size, status.st_uid);
        }
        if (survey_.firstLeftOut.empty()) {
            survey_.firstLeftOut = file.name;
        }
        take_(file);
    }

    const host::procfs::Procfs &proc_;
    Digests &digests_;
    ReadingBudget budget_;
    const host::Check &check_;
    const TakeSurveyed &take_;
    std::set<std::tuple<std::string, uint64_t, std::string>> seen_;
    Survey survey_;
};

} // namespace

Survey SurveyFiles(const host::procfs::Procfs &proc, Digests &digests, ReadingBudget budget, const host::Check &check,
                   const TakeSurveyed &take) {
    Surveyor surveyor(proc, digests, std::move(budget), check, take);
    for (const uint32_t pid : proc.ProcessIds()) {
        check();
        surveyor.Add(pid);
    }
    digests.ForgetUnused();
    return surveyor.Result();
}

} // namespace tarnd
