#include "host/core/settings.h"

#include <unistd.h>

#include <charconv>
#include <fstream>
#include <sstream>

#include "host/core/crash.h"
#include "host/osal/directories.h"
#include "host/osal/error.h"

namespace core {

namespace {

// What is longer, the kernel cuts.
constexpr size_t kMostPatternBytes = 127;
// So many crash at a time as are recorded; those beyond dump no core.
constexpr uint32_t kPipeLimit = 16;
constexpr const char *kWord = " record";

std::string LineOf(const std::filesystem::path &file) {
    std::ifstream from(file);
    std::string line;
    if (!from || (!std::getline(from, line) && !from.eof())) {
        host::Fail(errno == 0 ? EIO : errno, file.string());
    }
    return line;
}

// At once and to the disk, so that there are the old words or the new ones.
void Write(const std::filesystem::path &file, const std::string &text) {
    std::ofstream to(file);
    to << text;
    to.close();
    if (!to) {
        host::Fail(errno == 0 ? EIO : errno, file.string());
    }
}

void Replace(const std::filesystem::path &file, const std::string &text) {
    const std::filesystem::path made = file.string() + ".new";
    Write(made, text);
    sync();
    std::filesystem::rename(made, file);
}

uint32_t NumberOf(const std::string &text, const std::filesystem::path &file) {
    uint32_t number = 0;
    if (std::from_chars(text.data(), text.data() + text.size(), number).ec != std::errc()) {
        throw host::BadValue(file.c_str(), text, "a number");
    }
    return number;
}

constexpr std::string_view kPatternKey = "kernel.core_pattern=", kLimitKey = "kernel.core_pipe_limit=";

std::string TextOf(const KernelSettings &settings) {
    return fmt::format("{}{}\n{}{}\n", kPatternKey, settings.pattern, kLimitKey, settings.pipeLimit);
}

std::string PatternFor(const std::filesystem::path &program) {
    std::string pattern = "|" + program.string() + kWord;
    for (const char specifier : std::string_view(kSpecifiers)) {
        pattern += std::string(" %") + specifier;
    }
    if (pattern.size() > kMostPatternBytes || program.string().find(' ') != std::string::npos) {
        host::Fail(ENAMETOOLONG, fmt::format("{}: the kernel takes a pattern of {} bytes, and no blank in the path",
                                             program.string(), kMostPatternBytes));
    }
    return pattern;
}

} // namespace

KernelSettings Settings::Now() const {
    const std::filesystem::path limit = places_.kernel / "core_pipe_limit";
    return {LineOf(places_.kernel / "core_pattern"), NumberOf(LineOf(limit), limit)};
}

bool Settings::UsesPid() const {
    return LineOf(places_.kernel / "core_uses_pid") != "0";
}

std::optional<KernelSettings> Settings::Before() const {
    const std::filesystem::path file = places_.state / "before.conf";
    std::ifstream from(file);
    std::string pattern, limit;
    if (!from) {
        return {};
    }
    if (!std::getline(from, pattern) || !std::getline(from, limit) || !pattern.starts_with(kPatternKey) ||
        !limit.starts_with(kLimitKey)) {
        host::Fail(EPROTO, file.string() + ": expected core_pattern and core_pipe_limit");
    }
    return KernelSettings{pattern.substr(kPatternKey.size()), NumberOf(limit.substr(kLimitKey.size()), file)};
}

bool Settings::IsOurs(const std::string &pattern) const {
    const size_t end = pattern.find(kWord);
    return pattern.starts_with('|') && end != pattern.npos &&
           std::filesystem::path(pattern.substr(1, end - 1)).filename() == "tarn-core";
}

void Settings::Set(const KernelSettings &settings) const {
    Write(places_.kernel / "core_pipe_limit", fmt::format("{}\n", settings.pipeLimit));
    Write(places_.kernel / "core_pattern", settings.pattern + "\n");
}

bool Settings::Install(const std::filesystem::path &program) const {
    const KernelSettings now = Now();
    const KernelSettings ours{PatternFor(program), std::max(now.pipeLimit, kPipeLimit)};
    if (now.pattern == ours.pattern && now.pipeLimit == ours.pipeLimit) {
        return false;
    }
    if (!IsOurs(now.pattern)) {
        if (const std::error_code error = host::MakeDirectories(places_.state, 0755)) {
            host::Fail(error.value(), places_.state.string());
        }
        Replace(places_.state / "before.conf", TextOf(now));
    }
    Replace(places_.start, "# Made by tarn-core --install; tarn-core --remove takes it back.\n" + TextOf(ours));
    Set(ours);
    return true;
}

bool Settings::Remove() const {
    const auto before = Before();
    const bool removes = IsOurs(Now().pattern);
    if (removes) {
        Set(before.value_or(KernelSettings{"core", 0}));
    }
    const bool atStart = std::filesystem::remove(places_.start);
    const bool known = std::filesystem::remove(places_.state / "before.conf");
    std::error_code others; // who put something into it wants it
    std::filesystem::remove(places_.state, others);
    return removes || atStart || known;
}

} // namespace core
