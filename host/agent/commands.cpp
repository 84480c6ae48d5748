#include "host/agent/commands.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <vector>

#include <fmt/format.h>

#include "host/agent/methods.h"
#include "host/answer/answer.h"
#include "host/osal/log.h"
#include "host/osal/thread.h"

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

Registry::Registry() {
    AddBuiltins(*this);
}

uint32_t Registry::Add(const char *name, const char *help, TarnAgentCommand function, void *userData) {
    if (name == nullptr || function == nullptr || *name == 0 || strpbrk(name, " \t\n\r\v\f") != nullptr) {
        return EINVAL;
    }
    const std::lock_guard lock(mutex_);
    return commands_.try_emplace(name, Command{help == nullptr ? "" : help, function, userData}).second ? 0 : EEXIST;
}

bool Registry::Find(const std::string &name, Command &command) const {
    const std::lock_guard lock(mutex_);
    const auto found = commands_.find(name);
    if (found == commands_.end()) {
        return false;
    }
    command = found->second;
    return true;
}

uint32_t Registry::Run(const std::string &line, TarnAgentOutput &output) const {
    std::istringstream stream(line);
    std::vector<std::string> words;
    for (std::string word; stream >> word;) {
        words.push_back(word);
    }
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
    const uint32_t thrown = host::Run(words[0].c_str(), [&] {
        result = command.function(static_cast<int>(words.size()), arguments.data(), &output, command.userData);
    });
    return thrown != 0 ? thrown : result;
}

std::string Registry::Help() const {
    const std::lock_guard lock(mutex_);
    std::string text;
    for (const auto &[name, command] : commands_) {
        text += fmt::format("{:<12} {}\n", name, command.help);
    }
    return text;
}

void Runner::Start() {
    thread_ = host::StartThread("commands", [this](const std::stop_token &stop) { Work(stop); });
}

void Runner::Show(std::string line) {
    const std::lock_guard lock(mutex_);
    const uint32_t number = ++lastNumber_;
    if (waiting_.size() == kMaxWaiting) {
        result_ = {EBUSY, number, fmt::format("{} commands are waiting\n", kMaxWaiting)};
        return;
    }
    result_ = {EINPROGRESS, number, ""};
    waiting_.push_back({number, std::move(line)});
    changed_.notify_one();
}

CommandResult Runner::Result() const {
    const std::lock_guard lock(mutex_);
    return result_;
}

void Runner::Clean() {
    const std::lock_guard lock(mutex_);
    waiting_.clear();
    result_ = {ENODATA, 0, ""};
}

// Keeps the result unless a later command was taken, or the result is no longer wanted.
void Runner::SetResult(CommandResult result) {
    const std::lock_guard lock(mutex_);
    if (result_.number == result.number) {
        result_ = std::move(result);
    }
}

void Runner::Work(const std::stop_token &stop) {
    std::unique_lock lock(mutex_);
    for (;;) {
        changed_.wait(lock, stop, [this] { return !waiting_.empty(); });
        if (stop.stop_requested()) {
            return;
        }
        const Job job = std::move(waiting_.front());
        waiting_.pop_front();
        lock.unlock();
        TarnAgentOutput output;
        const uint32_t result = registry_.Run(job.line, output);
        host::Log().info("debug command {} \"{}\": {}", job.number, job.line, result);
        SetResult({result, job.number, std::move(output.text)});
        lock.lock();
    }
}

namespace {

Runner *servedRunner = nullptr;

} // namespace

void ServeCommandsOf(Runner *runner) {
    servedRunner = runner;
}

uint32_t DBGCmdExecShow(const Tarn_sys_diag_DbgCmdShowInput *request) {
    return host::Run(__func__, [&] { servedRunner->Show(request->pcCmdStr == nullptr ? "" : request->pcCmdStr); });
}

uint32_t DBGCmdExecResultGet(const Tarn_sys_diag_DbgCmdResultGetInput *, void *replyCtx) {
    return host::Answer<Tarn_sys_diag_DiagResult>(__func__, replyCtx, [](auto &reply) {
        CommandResult result = servedRunner->Result();
        reply.uiResult = result.result;
        reply.uiValue = result.number;
        reply.szText = reply.Keep(std::move(result.text));
    });
}

uint32_t DBGCmdExecClean(const Tarn_sys_diag_DbgCmdCleanInput *) {
    return host::Run(__func__, [] { servedRunner->Clean(); });
}

} // namespace agent
