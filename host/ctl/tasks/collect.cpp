// collect: what somebody far away needs to find out what is wrong, in one archive.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>

#include "host/ctl/archive.h"
#include "host/ctl/interrupt.h"
#include "host/ctl/journal.h"
#include "host/ctl/listing.h"
#include "host/ctl/outcome.h"
#include "host/ctl/own_service.h"
#include "host/ctl/progress.h"
#include "host/ctl/settings.h"
#include "host/ctl/tasks/tasks.h"
#include "host/describe/moment.h"
#include "host/osal/text.h"
#include "host/runtime/status.h"

namespace ctl {

using host::describe::Json;

namespace {

struct Options {
    std::string file, last;
    bool json = false;
};

// A reply of the daemon's that becomes a file; its text where it has one, else JSON.
struct Part {
    const char *file;
    const char *method;
    const char *request;
    const char *within; // the member that takes the time of --last; null where there is none
};
constexpr Part kParts[] = {
    {"processes.json", "SysCpuStatInfoQuery", "{}", nullptr},
    {"process-memory.json", "GetSysMemStatisPro", "{}", nullptr},
    {"cpus.json", "MultiCpuUsageQuery", "{}", nullptr},
    {"cpu-history.json", "GetSysCpuMonitorHistoryInfo", "{}", nullptr},
    {"busiest-threads.json", "CalculateAllThreadCpuUse", R"({"most": 50})", nullptr},
    {"memory.json", "GetSysMemUseInfo", "{}", nullptr},
    {"memory-history.txt", "MemLeakOrHisQry", R"({"report": "history"})", "interval"},
    {"leaks.txt", "MemLeakOrHisQry", R"({"report": "suspects"})", nullptr},
    {"health.json", "TarnPadsGetSystemHealthInfoByTarnd", "{}", nullptr},
    {"crashes.txt", "GetExceptionInfo", "{}", nullptr},
    {"assertions.txt", "GetAssertInfo", "{}", nullptr},
    {"cpu-events.json", "TarnPadsGetCpuEventByTarnd", "{}", "within"},
    {"memory-overloads.txt", "MemLeakOrHisQry", R"({"report": "overloads"})", nullptr},
    {"measurement.json", "TarnGetDimMeasRstByTarnd", "{}", nullptr},
    {"rules.json", "TarnGetMsgRuleInfoTarnd", "{}", nullptr},
    {"subscriptions.json", "TarnGetSubscribeInfoTarnd", "{}", nullptr},
    {"timers.json", "TarnGetTimerInfoTarnd", "{}", nullptr},
};

std::string ContentOf(const Reply &reply) {
    const Json named = reply.Named();
    return named.contains("text") && named["text"].is_string() ? named["text"].get<std::string>()
                                                               : named.dump(2) + "\n";
}

// What it could not have is told in a file of its own.
class Collection {
public:
    Collection(const Globals &globals, Server &server, const Options &options)
        : server_(server), options_(options), archive_(options.file),
          progress_(globals, "collecting", std::size(kParts) + 5), part_(server, progress_) {}

    void Run() {
        for (const Part &part : kParts) {
            Try(part.file, [&] { archive_.Add(part.file, ContentOf(server_.Ask(part.method, RequestOf(part)))); });
        }
        Try("status.json", [&] { AddStatus(); });
        Try("settings.jsonl", [&] { AddLines("settings.jsonl", Settings()); });
        Try("cpu-overloads.jsonl", [&] { AddLines("cpu-overloads.jsonl", Overloads()); });
        Try("events.jsonl", [&] { AddLines("events.jsonl", Events()); });
        Try("logs.zip", [&] { AddLogs(); });
        if (!missing_.empty()) {
            archive_.Add(kMissing, missing_);
        }
        archive_.Finish();
    }

    const std::string &Missing() const { return missing_; }

private:
    template <class Collect>
    void Try(const char *what, Collect collect) {
        progress_.Set(done_++, what);
        RequireNoInterrupt();
        try {
            collect();
        } catch (const Failure &failure) {
            if (failure.Code() == kConnection || failure.Code() == kOther) {
                throw;
            }
            if (failure.Result() != ENODATA) { // then there is nothing to miss
                missing_ += fmt::format("{}: {}\n", what, host::LineOfText(failure.what()));
            }
        }
    }

    void RequireNoInterrupt() const {
        if (interrupts_.Came()) {
            throw Interrupted("interrupted: there is no archive");
        }
    }

    Json RequestOf(const Part &part) const {
        Json request = Json::parse(part.request);
        if (part.within != nullptr && !options_.last.empty()) {
            request[part.within] = fmt::format("{}s", ParseSpan("--last", options_.last).count());
        }
        return request;
    }

    void AddStatus() {
        host::ServerStatus status;
        const host::CallOutcome outcome = AskStatus(server_.GetClient(), "TarnSysdiagTarnd", 0, status);
        if (!outcome.Ok()) {
            throw FailureOf(host::kRuntimeService, "Status", outcome);
        }
        archive_.Add("status.json", host::ToJson(status));
    }

    void AddLines(const char *file, const std::vector<Json> &objects) {
        std::string lines;
        for (const Json &object : objects) {
            lines += object.dump() + "\n";
        }
        archive_.Add(file, lines);
    }

    // By a time in ms.
    bool IsWanted(const Json &time) const {
        const auto last = options_.last.empty() ? std::chrono::seconds(INT32_MAX) : ParseSpan("--last", options_.last);
        const auto now = std::chrono::system_clock::now().time_since_epoch();
        return now - std::chrono::milliseconds(time.get<int64_t>()) <= last;
    }

    std::vector<Json> Events() {
        Journal journal(server_.GetClient(), {});
        std::vector<Json> events;
        while (journal.IsMore()) {
            std::ranges::copy_if(journal.Next(), std::back_inserter(events),
                                 [&](const Json &event) { return IsWanted(event.at("time_ms")); });
        }
        return events;
    }

    std::vector<Json> Settings() {
        std::vector<Json> settings;
        std::ranges::transform(RowsOf(AskSettings(server_)), std::back_inserter(settings), &SettingRow::json);
        return settings;
    }

    // All that are kept, and with the threads of those where they may be seen.
    std::vector<Json> Overloads() {
        std::vector<Json> overloads;
        for (const Json &one : CpuOverloads(server_.GetClient())) {
            RequireNoInterrupt();
            const Json &end = one.at("ended_ms");
            if (end.is_null() || IsWanted(end)) {
                overloads.push_back(WithThreads(server_.GetClient(), one));
            }
        }
        return overloads;
    }

    // The daemon packs them into its log directory, where the archive is fetched from and removed.
    void AddLogs() {
        const std::string name = fmt::format("tarnctl-{}.zip", getpid());
        server_.Ask("ZipLogFile", Json{{"name", name}});
        for (const std::filesystem::path &directory : Directories()) {
            const std::filesystem::path file = directory / name;
            std::error_code none;
            if (!std::filesystem::exists(file, none)) {
                continue;
            }
            std::ifstream in(file, std::ios::binary);
            if (!in) {
                throw Failure(kRemote, fmt::format("{}: cannot read: {}", file.string(), strerror(errno)));
            }
            archive_.Add("logs.zip", std::string(std::istreambuf_iterator<char>(in), {}));
            std::filesystem::remove(file, none);
            return;
        }
        throw Failure(kRemote, fmt::format("{} is in the daemon's log directory, which can't be looked into", name));
    }

    // Those that the daemon writes to, its log directory among them: the health of disks names them.
    std::vector<std::filesystem::path> Directories() {
        constexpr std::string_view kItem = "disk ";
        std::vector<std::filesystem::path> directories;
        const Elements items = server_.Ask("TarnPadsGetSystemHealthInfoByTarnd", Json{{"item", "disk"}}).In("items");
        for (const Json &item : items.wire) {
            if (const std::string name = items.Text(item, "name"); name.starts_with(kItem)) {
                directories.emplace_back(name.substr(kItem.size()));
            }
        }
        return directories;
    }

    Server &server_;
    const Options &options_;
    Archive archive_;
    Progress progress_;
    const Server::Part part_;
    const Interrupts interrupts_;
    uint64_t done_ = 0;
    std::string missing_;
};

std::string DefaultFile() {
    char host[65] = {};
    gethostname(host, sizeof host - 1);
    const auto now = std::chrono::system_clock::now();
    return fmt::format("tarn-{}-{}.tar.gz", host,
                       host::describe::DigitsText(host::describe::MomentOf(now, host::describe::Zone::kLocal)));
}

void Collect(const Globals &globals, Options options) {
    options.file = options.file.empty() ? DefaultFile() : options.file;
    if (options.file == "-" && isatty(STDOUT_FILENO) != 0) {
        throw Failure(kUsage, "-o -: standard output is a terminal, expected a file or a pipe");
    }
    if (options.file == "-" && options.json) {
        throw Failure(kUsage, "--json: expected -o FILE with it, as standard output takes the archive");
    }
    Server server(globals);
    std::string missing;
    {
        Collection collection(globals, server, options);
        collection.Run();
        missing = collection.Missing();
    }
    if (!missing.empty()) {
        std::cerr << "tarnctl: not all could be had:\n" << missing;
    }
    if (options.file != "-") {
        PrintArchive(options.file, options.json);
    }
}

} // namespace

void AddCollect(const Command &program, const Globals &globals) {
    const auto options = std::make_shared<Options>();
    const Command task =
        program.Add("collect", "Logs, crashes, processes, health and settings in one archive, for somebody far away",
                    {"collect", "collect -o trouble.tar.gz --last 1h", "-H device collect -o device.tar.gz"});
    task.Option("-o", options->file, "FILE", "The archive; - for standard output; default tarn-HOST-TIME.tar.gz");
    task.Option("--last", options->last, "TIME",
                "Of events, overloads and histories the last so much time: 10m, 1h; logs are whole");
    AddJson(task, options->json);
    task.Run([&globals, options] { Collect(globals, *options); });
}

} // namespace ctl
