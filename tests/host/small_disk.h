// A file system of a few pages, to be filled up or made read-only.
#pragma once

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace kit {

// Mounted where only this process and those that it starts see it. That takes root or user namespaces, and in the
// latter case must come before the process has a second thread; without either Mounted() is false.
class SmallDisk {
public:
    SmallDisk(std::filesystem::path at, const std::string &size) : at_(std::move(at)) {
        std::filesystem::create_directories(at_);
        const int alone = geteuid() == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER;
        mounted_ = unshare(alone) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                   mount("tarn-test", at_.c_str(), "tmpfs", 0, ("size=" + size).c_str()) == 0;
    }
    ~SmallDisk() {
        if (mounted_) {
            umount2(at_.c_str(), MNT_DETACH);
        }
    }
    SmallDisk(const SmallDisk &) = delete;
    SmallDisk &operator=(const SmallDisk &) = delete;

    bool Mounted() const { return mounted_; }
    const std::filesystem::path &Path() const { return at_; }

    void Fill() const {
        std::ofstream filler(at_ / "filler", std::ios::binary);
        while (filler.write("................................................................", 64).flush()) {
        }
    }
    void Empty() const { std::filesystem::remove(at_ / "filler"); }

    bool ReadOnly(bool readOnly) const {
        const unsigned long flags = MS_REMOUNT | (readOnly ? static_cast<unsigned long>(MS_RDONLY) : 0);
        return mount("none", at_.c_str(), nullptr, flags, nullptr) == 0;
    }

private:
    const std::filesystem::path at_;
    bool mounted_ = false;
};

} // namespace kit
