#include "host/core/crash.h"

#include <charconv>

#include "host/osal/error.h"
#include "host/osal/text.h"

namespace core {

namespace {

constexpr size_t kWordNum = sizeof kSpecifiers - 1;

std::map<char, std::string> TextsOf(std::span<char *const> words) {
    if (words.size() != kWordNum) {
        host::Fail(EINVAL, fmt::format("{} words of the kernel's, expected {}", words.size(), kWordNum));
    }
    std::map<char, std::string> texts;
    for (size_t i = 0; i < kWordNum; ++i) {
        texts[kSpecifiers[i]] = words[i];
    }
    return texts;
}

} // namespace

Crash::Crash(std::span<char *const> words)
    : texts_(TextsOf(words)), pid_(NumberOf<uint32_t>('P')), ownPid_(NumberOf<uint32_t>('p')),
      tid_(NumberOf<uint32_t>('I')), ownTid_(NumberOf<uint32_t>('i')), user_(NumberOf<uint32_t>('u')),
      group_(NumberOf<uint32_t>('g')), signal_(NumberOf<int32_t>('s')), isPlain_(NumberOf<uint32_t>('d') == 1),
      limit_(NumberOf<uint64_t>('c')) {}

const std::string &Crash::Text(char specifier) const {
    static const std::string kNone;
    const auto found = texts_.find(specifier);
    return found == texts_.end() ? kNone : found->second;
}

template <class Number>
Number Crash::NumberOf(char specifier) const {
    const std::string &text = Text(specifier);
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) {
        throw host::BadValue(fmt::format("%{}", specifier).c_str(), host::LineOfText(text), "a number");
    }
    return number;
}

} // namespace core
