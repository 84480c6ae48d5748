// collect: what somebody far away needs to find out what is wrong, in one archive.
#include <archive.h>
#include <archive_entry.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>

#include "host/ctl/interrupt.h"
#include "host/ctl/journal.h"
#include "host/ctl/outcome.h"
#include "host/ctl/progress.h"
#include "host/ctl/server.h"
#include "host/ctl/tasks/tasks.h"
#include "host/describe/moment.h"
#include "host/osal/text.h"
#include "host/runtime/status.h"

namespace ctl {

using host::describe::Json;

namespace {

struct Options {
    std::string file, last;
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
    {"cpu-overload.json", "DisCpuOvloadInfo", "{}", nullptr},
    {"cpu-overload-stacks.json", "DisCpuOvloadCallstackInfo", "{}", nullptr},
    {"cpu-events.json", "TarnPadsGetCpuEventByTarnd", "{}", "within"},
    {"memory-overloads.txt", "MemLeakOrHisQry", R"({"report": "overloads"})", nullptr},
    {"settings-cpu.json", "GetSysCpuOverloadCfg", "{}", nullptr},
    {"settings-memory.json", "GetSysMemOverloadCfg", "{}", nullptr},
    {"measurement.json", "TarnGetDimMeasRstByTarnd", "{}", nullptr},
    {"rules.json", "TarnGetMsgRuleInfoTarnd", "{}", nullptr},
    {"subscriptions.json", "TarnGetSubscribeInfoTarnd", "{}", nullptr},
    {"timers.json", "TarnGetTimerInfoTarnd", "{}", nullptr},
};

// A compressed archive that is there only when it is complete; "-" for standard output.
class Archive {
public:
    explicit Archive(const std::string &file) : file_(file), partial_(file + ".part") {
        archive_write_add_filter_gzip(archive_.get());
        archive_write_set_format_pax_restricted(archive_.get());
        Require(file == "-" ? archive_write_open_fd(archive_.get(), STDOUT_FILENO)
                            : archive_write_open_filename(archive_.get(), partial_.c_str()));
    }
    ~Archive() {
        if (!complete_ && file_ != "-") {
            archive_write_close(archive_.get());
            unlink(partial_.c_str());
        }
    }
    Archive(const Archive &) = delete;
    Archive &operator=(const Archive &) = delete;

    void Add(const std::string &name, std::string_view content) {
        const std::unique_ptr<archive_entry, void (*)(archive_entry *)> entry(archive_entry_new(), archive_entry_free);
        archive_entry_set_pathname(entry.get(), ("tarn/" + name).c_str());
        archive_entry_set_filetype(entry.get(), AE_IFREG);
        archive_entry_set_perm(entry.get(), 0600);
        archive_entry_set_mtime(entry.get(), time(nullptr), 0);
        archive_entry_set_size(entry.get(), static_cast<la_int64_t>(content.size()));
        Require(archive_write_header(archive_.get(), entry.get()));
        if (archive_write_data(archive_.get(), content.data(), content.size()) < 0) {
            Require(ARCHIVE_FATAL);
        }
    }

    void Finish() {
        Require(archive_write_close(archive_.get()));
        if (file_ != "-" && rename(partial_.c_str(), file_.c_str()) != 0) {
            throw Failure(kOther, fmt::format("{}: cannot write: {}", file_, strerror(errno)));
        }
        complete_ = true;
    }

private:
    void Require(int result) const {
        if (result < ARCHIVE_WARN) {
            const char *const text = archive_error_string(archive_.get());
            throw Failure(kOther, fmt::format("{}: cannot write: {}", file_, text == nullptr ? "unknown" : text));
        }
    }

    const std::string file_, partial_;
    const std::unique_ptr<archive, int (*)(archive *)> archive_{archive_write_new(), archive_write_free};
    bool complete_ = false;
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
          progress_(globals, "collecting", std::size(kParts) + 3), part_(server, progress_) {}

    void Run() {
        for (const Part &part : kParts) {
            Try(part.file, [&] { archive_.Add(part.file, ContentOf(server_.Ask(part.method, RequestOf(part)))); });
        }
        Try("status.json", [&] { AddStatus(); });
        Try("events.jsonl", [&] { archive_.Add("events.jsonl", Events()); });
        Try("logs.zip", [&] { AddLogs(); });
        if (!missing_.empty()) {
            archive_.Add("missing.txt", missing_);
        }
        archive_.Finish();
    }

    const std::string &Missing() const { return missing_; }

private:
    template <class Collect>
    void Try(const char *what, Collect collect) {
        progress_.Set(++done_, what);
        if (interrupts_.Came()) {
            throw Interrupted("interrupted: there is no archive");
        }
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

    // An event a line.
    std::string Events() {
        const auto last = options_.last.empty() ? std::chrono::seconds(INT32_MAX) : ParseSpan("--last", options_.last);
        const auto now = std::chrono::system_clock::now().time_since_epoch();
        Journal journal(server_.GetClient(), {});
        std::string lines;
        while (journal.IsMore()) {
            for (const Json &event : journal.Next()) {
                const std::chrono::milliseconds time(event.at("time_ms").get<int64_t>());
                lines += now - time <= last ? event.dump() + "\n" : "";
            }
        }
        return lines;
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
        std::cout << options.file << "\n";
    }
}

} // namespace

void AddCollect(CLI::App &app, const Globals &globals) {
    const auto options = std::make_shared<Options>();
    CLI::App *const task =
        AddTask(app, "collect", "Logs, crashes, processes, health and settings in one archive, for somebody far away",
                {"collect", "collect -o trouble.tar.gz --last 1h", "-H device collect -o device.tar.gz"});
    task->add_option("-o", options->file, "The archive; - for standard output; default tarn-HOST-TIME.tar.gz")
        ->option_text("FILE");
    task->add_option("--last", options->last, "Of events and histories the last so much time: 10m, 1h; logs are whole")
        ->option_text("TIME");
    task->callback([&globals, options] { Collect(globals, *options); });
}

} // namespace ctl
