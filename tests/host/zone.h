// The local zone of a test, and the one before when it ends.
#pragma once

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

class ZoneOfTest {
public:
    explicit ZoneOfTest(const char *zone) {
        if (const char *const before = getenv("TZ")) {
            before_ = before;
        }
        setenv("TZ", zone, 1);
        tzset();
    }
    ~ZoneOfTest() {
        if (before_) {
            setenv("TZ", before_->c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }
    ZoneOfTest(const ZoneOfTest &) = delete;
    ZoneOfTest &operator=(const ZoneOfTest &) = delete;

private:
    std::optional<std::string> before_;
};
