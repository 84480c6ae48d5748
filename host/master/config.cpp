#include "host/master/config.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <stdexcept>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "host/answer/answer.h"

namespace master {

namespace {

constexpr size_t kNameSize = sizeof(Tarn_sys_diag_OvLoadCpuCtlInput::acName1);

std::string Trimmed(const std::string &text) {
    const size_t first = text.find_first_not_of(" \t\r");
    return first == text.npos ? "" : text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

std::vector<std::string> WordsOf(const std::string &text) {
    std::istringstream stream(text);
    std::vector<std::string> words;
    for (std::string word; stream >> word;) {
        words.push_back(word);
    }
    return words;
}

std::optional<uint32_t> NumberOf(const std::string &text) {
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

// A section as it stands in the file. Its values are taken out one by one; what remains is not known.
class Section {
public:
    Section(std::string file, uint32_t line, std::vector<std::string> words)
        : file_(std::move(file)), line_(line), words_(std::move(words)) {}

    [[noreturn]] static void Fail(const std::string &file, uint32_t line, const std::string &what) {
        throw std::runtime_error(fmt::format("{}:{}: {}", file, line, what));
    }
    [[noreturn]] void Fail(const std::string &what) const { Fail(file_, line_, Name() + " " + what); }

    std::string Name() const { return fmt::format("[{}]", fmt::join(words_, " ")); }
    const std::string &Type() const { return words_[0]; }
    std::vector<std::string> Arguments() const { return {words_.begin() + 1, words_.end()}; }

    void Add(const std::string &key, uint32_t line, const std::string &value) {
        if (const auto [at, added] = values_.emplace(key, Value{line, value}); !added) {
            Fail(file_, line, fmt::format("{} {} is stated again; first in line {}", Name(), key, at->second.line));
        }
    }

    bool Has(const std::string &key) const { return values_.count(key) != 0; }

    // Has a function make something of a value; what it throws becomes an error in the value's line.
    template <class Make>
    auto Take(const std::string &key, Make make) {
        const auto at = values_.find(key);
        if (at == values_.end()) {
            Fail(fmt::format("has no {}", key));
        }
        const Value value = at->second;
        values_.erase(at);
        try {
            return make(value.text);
        } catch (const std::system_error &error) {
            // without the category's text, which says only that it is invalid
            const std::string what = error.what();
            Fail(file_, value.line, fmt::format("{} {}: {}", Name(), key, what.substr(0, what.rfind(": "))));
        }
    }

    std::string Text(const std::string &key, size_t most) {
        return Take(key, [&](const std::string &text) {
            if (text.empty() || text.size() > most) {
                throw host::BadValue("the text", fmt::format("\"{}\"", text), fmt::format("1 to {} bytes", most));
            }
            return text;
        });
    }

    uint32_t Number(const std::string &key, int64_t least, int64_t most) {
        return static_cast<uint32_t>(Signed(key, least, most));
    }
    int32_t Signed(const std::string &key, int64_t least, int64_t most) {
        return Take(key, [&](const std::string &text) {
            const bool negative = text.starts_with('-');
            const std::optional<uint32_t> number = NumberOf(text.substr(negative ? 1 : 0));
            const int64_t value = negative ? -int64_t{number.value_or(0)} : int64_t{number.value_or(0)};
            if (!number || value < least || value > most) {
                throw host::BadValue("the value", fmt::format("\"{}\"", text),
                                     fmt::format("a number from {} to {}", least, most));
            }
            return static_cast<int32_t>(value);
        });
    }

    uint32_t Choice(const std::string &key, std::span<const host::meaning::Choice> choices) {
        return Take(key, [&](const std::string &text) {
            const auto found = std::ranges::find(choices, text, &host::meaning::Choice::name);
            if (found == choices.end()) {
                std::vector<std::string_view> names;
                std::ranges::transform(choices, std::back_inserter(names), &host::meaning::Choice::name);
                throw host::BadValue("the value", fmt::format("\"{}\"", text),
                                     fmt::format("{}", fmt::join(names, ", ")));
            }
            return found->value;
        });
    }

    void ExpectNothingElse(const std::string &known) const {
        if (!values_.empty()) {
            const auto &[key, value] = *values_.begin();
            Fail(file_, value.line, fmt::format("{} has no key \"{}\", expected {}", Name(), key, known));
        }
    }

    // Has a function check what several values make together.
    template <class Check>
    void Together(Check check) const {
        try {
            check();
        } catch (const std::system_error &error) {
            const std::string what = error.what();
            Fail(what.substr(0, what.rfind(": ")));
        }
    }

private:
    struct Value {
        uint32_t line;
        std::string text;
    };

    const std::string file_;
    const uint32_t line_;
    const std::vector<std::string> words_;
    std::map<std::string, Value> values_;
};

std::vector<Section> ReadSections(std::istream &text, const std::string &file) {
    std::vector<Section> sections;
    std::set<std::string> names;
    uint32_t lineNumber = 0;
    for (std::string raw; std::getline(text, raw);) {
        ++lineNumber;
        const std::string line = Trimmed(raw.substr(0, raw.find('#')));
        if (line.empty()) {
            continue;
        }
        if (line.starts_with('[')) {
            const std::vector<std::string> words = WordsOf(line.substr(1, line.size() - 2));
            if (!line.ends_with(']') || words.empty()) {
                Section::Fail(file, lineNumber, fmt::format("\"{}\", expected [section]", line));
            }
            sections.emplace_back(file, lineNumber, words);
            if (!names.insert(sections.back().Name()).second) {
                sections.back().Fail("is there twice");
            }
            continue;
        }
        const size_t equals = line.find('=');
        if (equals == line.npos || sections.empty()) {
            Section::Fail(file, lineNumber,
                          fmt::format("\"{}\", expected {}", line, sections.empty() ? "[section]" : "key = value"));
        }
        sections.back().Add(Trimmed(line.substr(0, equals)), lineNumber, Trimmed(line.substr(equals + 1)));
    }
    return sections;
}

void ReadZone(Section &section, Config &config) {
    host::Zone zone{section.Text("name", sizeof(Tarn_sys_diag_Timezone::szTimezoneName)),
                    section.Signed("offset", host::kMinZoneOffset, host::kMaxZoneOffset)};
    section.Together([&] { config.zone = host::CheckedZone(zone); });
    section.ExpectNothingElse("name, offset");
}

void ReadDst(Section &section, Config &config) {
    const host::DstRule rule{section.Text("name", sizeof(Tarn_sys_diag_Dst::szDstName)),
                             section.Number("offset", 1, host::kMaxDstOffset), section.Take("start", host::ParseChange),
                             section.Take("end", host::ParseChange)};
    section.Together([&] { config.dst = host::CheckedRule(rule); });
    section.ExpectNothingElse("name, offset, start, end");
}

Names NamesOf(const Section &section) {
    const std::vector<std::string> names = section.Arguments();
    if (names.empty() || names.size() > 2 || names[0].size() > kNameSize || names.back().size() > kNameSize) {
        section.Fail(fmt::format("expected a name and perhaps a variant, of up to {} bytes", kNameSize));
    }
    return {names[0], names.size() == 2 ? names[1] : ""};
}

Thresholds ReadThresholds(Section &section, bool ofCpu) {
    Thresholds thresholds;
    thresholds.over = section.Number("over", 0, 1000);
    thresholds.recover = section.Has("recover") ? section.Number("recover", 0, 1000) : thresholds.over;
    if (ofCpu && section.Has("seconds")) {
        thresholds.seconds = section.Number("seconds", 0, host::meaning::cpu_overload::kMostSeconds);
    }
    section.Together([&] { CheckThresholds(thresholds); });
    section.ExpectNothingElse(ofCpu ? "over, recover, seconds" : "over, recover");
    return thresholds;
}

void ReadPhysical(Section &section, Config &config) {
    const std::vector<std::string> words = section.Arguments();
    Address address{};
    for (size_t i = 0; i != address.size(); ++i) {
        const std::optional<uint32_t> number = words.size() == address.size() ? NumberOf(words[i]) : std::nullopt;
        if (!number) {
            section.Fail("expected frame, slot and port");
        }
        address[i] = *number;
    }
    config.physical[address] = {section.Text("name", sizeof(Tarn_sys_diag_PhyNameAndIDOutput::acPhyName)),
                                section.Number("type", 0, INT32_MAX), section.Number("number", 0, INT32_MAX)};
    section.ExpectNothingElse("name, type, number");
}

void ReadAutoUpdate(Section &section, Config &config) {
    AutoUpdate update;
    static constexpr host::meaning::Choice kNoOrYes[] = {{0, "no", ""}, {1, "yes", ""}};
    update.enabled = section.Choice("enabled", kNoOrYes) == 1;
    update.periodHours = section.Number("period", 1, 8760);
    update.hour = section.Has("hour") ? section.Number("hour", 0, 23) : 0;
    config.autoUpdate = update;
    section.ExpectNothingElse("enabled, period, hour");
}

void ReadProcess(Section &section, Config &config) {
    config.process = {section.Text("text", sizeof(Tarn_sys_diag_MKCfgInfoOutput::acCfgInfo)),
                      section.Number("instances", 0, INT32_MAX), section.Number("restarts", 0, INT32_MAX),
                      section.Number("timeout", 0, INT32_MAX)};
    section.ExpectNothingElse("text, instances, restarts, timeout");
}

// In the form of the record: an hour and a minute, or how often.
Tarn_sys_diag_DimTimeCfg TimesOf(const std::string &text) {
    constexpr uint8_t kEverySeconds{host::meaning::measurement_time::kEverySeconds};
    constexpr uint8_t kEveryMinutes{host::meaning::measurement_time::kEveryMinutes};
    const std::vector<std::string> words = WordsOf(text);
    if (text == "never") {
        return {kEverySeconds, 0};
    }
    if (words.size() == 3 && words[0] == "every" && (words[2] == "s" || words[2] == "min")) {
        const std::optional<uint32_t> number = NumberOf(words[1]);
        if (number && *number >= 1 && *number <= UINT8_MAX) {
            return {words[2] == "s" ? kEverySeconds : kEveryMinutes, static_cast<uint8_t>(*number)};
        }
    }
    if (text.size() == 5 && text[2] == ':') {
        const std::optional<uint32_t> hour = NumberOf(text.substr(0, 2));
        const std::optional<uint32_t> minute = NumberOf(text.substr(3));
        if (hour && minute && *hour < 24 && *minute < 60) {
            return {static_cast<uint8_t>(*hour), static_cast<uint8_t>(*minute)};
        }
    }
    throw host::BadValue("the value", fmt::format("\"{}\"", text),
                         "a time such as 03:30, or \"every 1 to 255 s\" or \"min\", or \"never\"");
}

void ReadMeasurement(Section &section, Config &config) {
    Measurement measurement;
    measurement.times = section.Take("time", TimesOf);
    measurement.mode = section.Choice("mode", host::meaning::measurement_mode::kAll);
    config.measurement = measurement;
    section.ExpectNothingElse("time, mode");
}

void Read(Section &section, Config &config) {
    const std::string &type = section.Type();
    const bool named = type == "cpu-overload" || type == "memory-overload" || type == "physical";
    if (!named && !section.Arguments().empty()) {
        section.Fail("takes no further words");
    }
    if (type == "zone") {
        ReadZone(section, config);
    } else if (type == "daylight-saving") {
        ReadDst(section, config);
    } else if (type == "cpu-overload") {
        config.cpuOverload[NamesOf(section)] = ReadThresholds(section, true);
    } else if (type == "memory-overload") {
        config.memoryOverload[NamesOf(section)] = ReadThresholds(section, false);
    } else if (type == "physical") {
        ReadPhysical(section, config);
    } else if (type == "auto-update") {
        ReadAutoUpdate(section, config);
    } else if (type == "process") {
        ReadProcess(section, config);
    } else if (type == "measurement") {
        ReadMeasurement(section, config);
    } else {
        section.Fail("is no section, expected zone, daylight-saving, cpu-overload, memory-overload, physical, "
                     "auto-update, process or measurement");
    }
}

} // namespace

Config ParseConfig(std::istream &text, const std::string &name) {
    Config config;
    for (Section &section : ReadSections(text, name)) {
        Read(section, config);
        if (section.Type() == "daylight-saving" && !config.zone) {
            section.Fail("stands behind [zone], which is missing");
        }
    }
    return config;
}

Config LoadConfig(const std::filesystem::path &file) {
    std::ifstream text(file);
    if (!text) {
        throw std::runtime_error(fmt::format("{}: {}, expected a configuration file", file.string(),
                                             std::generic_category().message(errno)));
    }
    Config config = ParseConfig(text, file.string());
    if (text.bad()) {
        throw std::runtime_error(fmt::format("{}: can't be read", file.string()));
    }
    return config;
}

void CheckThresholds(const Thresholds &thresholds) {
    constexpr uint32_t kAll = 1000;
    if (thresholds.over > kAll) {
        throw host::BadValue("the share at which an overload begins", thresholds.over, "0 to 1000 permille");
    }
    if (thresholds.recover > thresholds.over) {
        throw host::BadValue("the share below which an overload ends", thresholds.recover,
                             fmt::format("0 to {}, at which it begins", thresholds.over));
    }
}

} // namespace master
