#include "host/agent/commands.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <vector>

#include <fmt/format.h>

#include "host/osal/attempt.h"
#include "host/osal/log.h"

void TarnAgent_Print(TarnAgentOutput *output, const char *format, ...) {
    static constexpr char kCut[] = "\n[cut]\n";
    constexpr size_t kRoom = TARN_AGENT_OUTPUT_MAX - sizeof kCut;
    if (output->text.size() > kRoom) {
        return; // has been cut
    }
    va_list arguments, again;
    va_start(arguments, format);
    va_copy(again, arguments);
    const int length = vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
    if (length > 0) {
        const size_t start = output->text.size();
        const bool cut = static_cast<size_t>(length) > kRoom - start;
        const size_t taken = cut ? kRoom - start : static_cast<size_t>(length);
        output->text.resize(start + taken + 1); // vsnprintf terminates
        vsnprintf(output->text.data() + start, taken + 1, format, again);
        output->text.pop_back();
        if (cut) {
            output->text += kCut;
        }
    }
    va_end(again);
}

namespace agent {

namespace {

constexpr char kBlanks[] = " \t\n\r\v\f";

std::vector<std::string> WordsOf(const std::string &line) {
    std::vector<std::string> words;
    for (size_t at = line.find_first_not_of(kBlanks); at != std::string::npos;) {
        const size_t end = std::min(line.find_first_of(kBlanks, at), line.size());
        words.push_back(line.substr(at, end - at));
        at = line.find_first_not_of(kBlanks, end);
    }
    return words;
}

} // namespace

CommandTable::CommandTable() {
    AddBuiltins(*this);
}

uint32_t CommandTable::Add(const char *name, const char *help, TarnAgentCommand function, void *userData) {
    if (name == nullptr || function == nullptr || *name == 0 || strpbrk(name, kBlanks) != nullptr) {
        return EINVAL;
    }
    const host::MutexLock lock(mutex_);
    return commands_.try_emplace(name, Command{help == nullptr ? "" : help, function, userData}).second ? 0 : EEXIST;
}

bool CommandTable::Find(const std::string &name, Command &command) const {
    const host::MutexLock lock(mutex_);
    const auto found = commands_.find(name);
    if (found == commands_.end()) {
        return false;
    }
    command = found->second;
    return true;
}

uint32_t CommandTable::Run(const std::string &line, TarnAgentOutput &output) const {
    const std::vector<std::string> words = WordsOf(line);
    if (words.empty()) {
        TarnAgent_Print(&output, "no command in the line; \"help\" lists the commands\n");
        return EINVAL;
    }
    Command command;
    if (!Find(words[0], command)) {
        TarnAgent_Print(&output, "no command \"%s\"; \"help\" lists the commands\n", words[0].c_str());
        return ENOENT;
    }
    std::vector<const char *> arguments;
    for (const std::string &word : words) {
        arguments.push_back(word.c_str());
    }
    arguments.push_back(nullptr);
    uint32_t result = 0;
    const uint32_t thrown = host::Attempt(words[0].c_str(), [&] {
        result = command.function(static_cast<int>(words.size()), arguments.data(), &output, command.userData);
    });
    return thrown != 0 ? thrown : result;
}

std::string CommandTable::Help() const {
    const host::MutexLock lock(mutex_);
    std::string text;
    for (const auto &[name, command] : commands_) {
        text += fmt::format("{:<12} {}\n", name, command.help);
    }
    return text;
}

void CommandQueue::Put(std::string line) {
    {
        const host::MutexLock lock(mutex_);
        const uint32_t number = ++lastNumber_;
        if (waiting_.size() == kMaxWaiting) {
            result_ = {EBUSY, number, fmt::format("{} commands are waiting\n", kMaxWaiting)};
            return;
        }
        result_ = {EINPROGRESS, number, ""};
        waiting_.push_back({number, std::move(line)});
    }
    wake_();
}

bool CommandQueue::RunNext() {
    Job job;
    {
        const host::MutexLock lock(mutex_);
        if (waiting_.empty()) {
            return false;
        }
        job = std::move(waiting_.front());
        waiting_.pop_front();
    }
    TarnAgentOutput output;
    const uint32_t result = table_.Run(job.line, output);
    host::Log().info("debug command {} \"{}\": {}", job.number, job.line, result);
    SetResult({result, job.number, std::move(output.text)});
    const host::MutexLock lock(mutex_);
    return !waiting_.empty();
}

// Keeps the result unless a later command was taken, or the result is no longer wanted.
void CommandQueue::SetResult(CommandResult result) {
    const host::MutexLock lock(mutex_);
    if (result_.number == result.number) {
        result_ = std::move(result);
    }
}

CommandResult CommandQueue::Result() const {
    const host::MutexLock lock(mutex_);
    return result_;
}

void CommandQueue::Clean() {
    const host::MutexLock lock(mutex_);
    waiting_.clear();
    result_ = {ENODATA, 0, ""};
}

void CommandQueue::Reset() {
    Clean();
    const host::MutexLock lock(mutex_);
    lastNumber_ = 0;
}

} // namespace agent
