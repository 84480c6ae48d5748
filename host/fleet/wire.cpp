#include "host/fleet/wire.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <charconv>

#include "host/osal/text.h"
#include "host/store/sha256.h"

namespace fleet {

namespace {

constexpr char kTypeHash[] = "Tarn-Type";
constexpr char kDeadline[] = "Tarn-Deadline-Ms";
constexpr char kCaller[] = "Tarn-Caller";
constexpr char kPid[] = "Tarn-Pid";
constexpr char kSocket[] = "Tarn-Socket";
constexpr char kStatus[] = "Tarn-Status";
constexpr char kError[] = "Tarn-Error";
constexpr char kText[] = "Tarn-Text";
constexpr char kExplanation[] = "Tarn-Explanation";
constexpr char kPart[] = "Tarn-Part"; // NUMBER/HOW-MANY, from 1
constexpr char kDigest[] = "Tarn-Digest";

constexpr size_t kRoomForHeaders = 8192;
constexpr size_t kMostParts = 4096;
constexpr size_t kMostBytes = 64U << 20; // of an answer
constexpr size_t kMostCaller = 128;

std::string Digest(std::string_view bytes) {
    host::Sha256 digest;
    digest.Add(bytes);
    return digest.Hex();
}

// Nothing for what is no number, or a larger one.
std::optional<uint32_t> NumberIn(std::string_view text) {
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

uint32_t NumberOf(const Message &message, const char *header) {
    const std::string text = message.Header(header);
    const auto number = text.empty() ? 0 : NumberIn(text);
    if (!number) {
        throw std::invalid_argument(
            fmt::format("the header {} is \"{}\", expected a number of 32 bits", header, host::LineOfText(text)));
    }
    return *number;
}

void SetNumber(Message &message, const char *header, uint64_t number) {
    if (number != 0) {
        message.SetHeader(header, std::to_string(number));
    }
}

void SetText(Message &message, const char *header, const std::string &text) {
    if (!text.empty()) {
        message.SetHeader(header, text);
    }
}

host::CallOutcome Damaged(const std::string &what) {
    host::CallOutcome outcome;
    outcome.errCode = EBADMSG;
    outcome.text = "the answer is damaged: " + what;
    return outcome;
}

} // namespace

std::string SubjectOf(std::string_view device, std::string_view what) {
    return fmt::format("tarn.v1.{}.{}", device, what);
}

std::string DeviceOf(std::string_view subject) {
    constexpr std::string_view kRoot = "tarn.v1.";
    if (!subject.starts_with(kRoot)) {
        return "";
    }
    subject.remove_prefix(kRoot.size());
    return std::string(subject.substr(0, subject.find('.')));
}

void CheckDeviceName(std::string_view name) {
    const bool plain = std::ranges::all_of(name, [](char letter) {
        return (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z') ||
               (letter >= '0' && letter <= '9') || letter == '-' || letter == '_';
    });
    if (!plain || name.empty() || name.size() > 64) {
        throw std::invalid_argument(
            fmt::format("\"{}\" is no name of a device, expected 1 to 64 letters, digits, '-' and '_'", name));
    }
}

Message ToMessage(const std::string &device, const Request &request, const std::string &reply) {
    Message message(SubjectOf(device, fmt::format("call.{}.{}", request.service, request.method)), request.message,
                    reply);
    SetNumber(message, kTypeHash, request.typeHash);
    SetNumber(message, kDeadline, static_cast<uint64_t>(std::max<int64_t>(request.deadline.count(), 0)));
    SetText(message, kCaller, request.caller);
    SetNumber(message, kPid, request.pid);
    SetText(message, kSocket, request.socketOf);
    return message;
}

Request RequestOf(const Message &message) {
    const std::string subject = message.Subject();
    const size_t method = subject.rfind('.');
    const size_t service = subject.rfind('.', method - 1);
    Request request;
    request.service = subject.substr(service + 1, method - service - 1);
    request.method = subject.substr(method + 1);
    request.typeHash = NumberOf(message, kTypeHash);
    request.deadline = std::chrono::milliseconds(NumberOf(message, kDeadline));
    request.caller = host::LineOfText(message.Header(kCaller).substr(0, kMostCaller));
    request.pid = NumberOf(message, kPid);
    request.socketOf = message.Header(kSocket);
    request.message = message.Payload();
    return request;
}

std::vector<Message> ToMessages(const host::CallOutcome &outcome, const std::string &subject, size_t most) {
    const std::string_view bytes(reinterpret_cast<const char *>(outcome.bytes.data()), outcome.bytes.size());
    const size_t size = std::max<size_t>(most, 2 * kRoomForHeaders) - kRoomForHeaders;
    const size_t parts = std::max<size_t>((bytes.size() + size - 1) / size, 1);
    std::vector<Message> messages;
    for (size_t part = 0; part < parts; ++part) {
        Message &message = messages.emplace_back(subject, bytes.substr(part * size, size));
        if (parts > 1) {
            message.SetHeader(kPart, fmt::format("{}/{}", part + 1, parts));
        }
    }
    Message &first = messages.front();
    first.SetHeader(kStatus, std::to_string(outcome.status));
    SetNumber(first, kError, outcome.errCode);
    SetText(first, kText, outcome.text);
    SetText(first, kExplanation, outcome.explanation);
    if (parts > 1) {
        first.SetHeader(kDigest, Digest(bytes));
    }
    return messages;
}

std::optional<host::CallOutcome> Answer::Add(const Message &part) {
    uint32_t number = 1, count = 1;
    if (const std::string text = part.Header(kPart); !text.empty()) {
        const size_t slash = text.find('/');
        number = NumberIn(std::string_view(text).substr(0, slash)).value_or(0);
        count = slash == text.npos ? 0 : NumberIn(std::string_view(text).substr(slash + 1)).value_or(0);
    }
    if (number == 0 || number > count || count > kMostParts || (size_ += part.Payload().size()) > kMostBytes) {
        return Damaged("it has no parts that could be counted, or too many");
    }
    if (number == 1) {
        try {
            outcome_.status = NumberOf(part, kStatus);
            outcome_.errCode = NumberOf(part, kError);
        } catch (const std::invalid_argument &error) {
            return Damaged(error.what());
        }
        outcome_.text = host::LineOfText(part.Header(kText));
        outcome_.explanation = host::LineOfText(part.Header(kExplanation));
        digest_ = part.Header(kDigest);
    }
    parts_.emplace(number, part.Payload());
    if (parts_.size() < count) {
        return std::nullopt;
    }
    std::string bytes;
    for (const auto &[at, text] : parts_) {
        bytes += text;
    }
    if (count > 1 && Digest(bytes) != digest_) {
        return Damaged("its digest is another");
    }
    outcome_.bytes.assign(bytes.begin(), bytes.end());
    return std::move(outcome_);
}

} // namespace fleet
