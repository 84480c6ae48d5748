#include "host/fleet/settings_file.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>

namespace fleet {

namespace {

std::string Trimmed(const std::string &text) {
    const size_t first = text.find_first_not_of(" \t\r");
    return first == text.npos ? "" : text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

} // namespace

SettingsFile SettingsFile::Load(const std::filesystem::path &file) {
    std::ifstream in(file);
    if (!in) {
        throw std::runtime_error(
            fmt::format("{}: {}, expected a file of settings", file.string(), strerrordesc_np(errno)));
    }
    return SettingsFile(in, file.string());
}

SettingsFile::SettingsFile(std::istream &text, std::string name) : name_(std::move(name)) {
    uint32_t number = 0;
    for (std::string raw; std::getline(text, raw);) {
        ++number;
        const std::string line = Trimmed(raw.substr(0, raw.find('#')));
        const size_t equals = line.find('=');
        if (line.empty()) {
            continue;
        }
        if (equals == line.npos) {
            throw std::runtime_error(fmt::format("{}:{}: \"{}\", expected key = value", name_, number, line));
        }
        const std::string key = Trimmed(line.substr(0, equals));
        if (!values_.emplace(key, Value{number, Trimmed(line.substr(equals + 1))}).second) {
            throw std::runtime_error(fmt::format("{}:{}: {} is stated again, expected it once", name_, number, key));
        }
    }
}

std::string SettingsFile::Take(const std::string &key, const std::string &otherwise) {
    known_.push_back(key);
    const auto found = values_.extract(key);
    if (found.empty()) {
        return otherwise;
    }
    taken_[key] = found.mapped().line;
    return found.mapped().text;
}

uint64_t SettingsFile::TakeNumber(const std::string &key, uint64_t least, uint64_t most, uint64_t otherwise) {
    const std::string text = Take(key, std::to_string(otherwise));
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number < least || number > most) {
        Refuse(key, fmt::format("is \"{}\", expected a number from {} to {}", text, least, most));
    }
    return number;
}

Account SettingsFile::TakeAccount() {
    Account account;
    account.url = Take("server");
    account.ca = Take("ca");
    account.certificate = Take("certificate");
    account.certificateKey = Take("certificate-key");
    account.nkey = Take("nkey");
    account.nkeySeed = Take("nkey-seed");
    account.credentials = Take("credentials");
    account.inboxPrefix = Take("inbox-prefix");
    if (account.url.empty()) {
        throw std::runtime_error(name_ + ": no server, expected e.g. server = tls://fleet.example:4222");
    }
    try {
        account.Check();
    } catch (const std::invalid_argument &error) {
        Refuse("server", error.what());
    }
    return account;
}

void SettingsFile::ExpectNothingElse() const {
    if (!values_.empty()) {
        const auto &[key, value] = *values_.begin();
        throw std::runtime_error(
            fmt::format("{}:{}: no key \"{}\", expected {}", name_, value.line, key, fmt::join(known_, ", ")));
    }
}

void SettingsFile::Refuse(const std::string &key, const std::string &what) const {
    const auto found = taken_.find(key);
    throw std::runtime_error(found == taken_.end() ? fmt::format("{}: {} {}", name_, key, what)
                                                   : fmt::format("{}:{}: {} {}", name_, found->second, key, what));
}

} // namespace fleet
