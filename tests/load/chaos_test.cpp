// Everything that can go wrong around the daemon does: processes are killed, connections cut, the disk is full, no
// descriptor is left. Every call still ends in time, and no file is lost or half-written.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"

#include <archive.h>
#include <archive_entry.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cinttypes>
#include <mutex>
#include <nlohmann/json.hpp>

#include "host/runtime/protocol.h"
#include "host/runtime/transport.h"
#include "tests/host/small_disk.h"
#include "tests/load/system.h"

namespace {

using namespace kit;

constexpr auto kShort = 6s;
constexpr auto kDeadline = 3s;
constexpr auto kPatience = 60s; // where no call may fail
constexpr auto kSlack = 10s;    // for a machine that is busy with other things
constexpr size_t kCallers = 8;

std::chrono::milliseconds PartOf(std::chrono::milliseconds time, int parts) {
    return std::max<std::chrono::milliseconds>(2s, time / parts);
}

void ExpectWholeJson(const std::filesystem::path &file) {
    const std::string text = TextOfFile(file);
    EXPECT_TRUE(nlohmann::json::accept(text)) << file << ": " << text;
}

void ExpectWholeArchive(const std::filesystem::path &file) {
    const std::unique_ptr<archive, decltype(&archive_read_free)> reader(archive_read_new(), archive_read_free);
    archive_read_support_format_zip(reader.get());
    int error = archive_read_open_filename(reader.get(), file.c_str(), 65536);
    for (archive_entry *entry = nullptr; error == ARCHIVE_OK;) {
        error = archive_read_next_header(reader.get(), &entry);
        if (error == ARCHIVE_OK) {
            error = archive_read_data_skip(reader.get());
        }
    }
    EXPECT_EQ(error, ARCHIVE_EOF) << file << ": " << archive_error_string(reader.get());
}

// What the callers of a test saw.
struct Findings {
    std::mutex mutex;
    std::map<std::string, std::string> failures; // by method and status
    std::map<uint32_t, uint64_t> byStatus;
    uint64_t calls = 0, answered = 0;
    Clock::duration slowest{0};

    void Add(const Mix::Call &call, const host::CallOutcome &outcome, bool allowed, Clock::duration took,
             Clock::duration deadline) {
        const std::lock_guard lock(mutex);
        ++calls;
        ++byStatus[StatusOf(call, outcome)];
        answered += outcome.errCode == 0 ? 1 : 0;
        slowest = std::max(slowest, took);
        if (!allowed || took > deadline + kSlack) {
            failures.try_emplace(
                fmt::format("{} {}", call.Name(), StatusOf(call, outcome)),
                fmt::format("{}, after {:.3f} s", Tell(call, outcome), std::chrono::duration<double>(took).count()));
        }
    }
};

class Chaos : public WholeSystem<Unit> {
protected:
    // Statuses beyond those that a call asks for.
    using Allowed = std::function<bool(uint32_t)>;

    void StartCallers(const Allowed &allowed, std::chrono::seconds deadline = kDeadline) {
        for (size_t i = 0; i < kCallers; ++i) {
            callers_.emplace_back([this, allowed, deadline, i] {
                host::Client client({.runDir = dir_.Path()});
                Mix mix(scene_, i);
                while (!stop_) {
                    CallOnce(client, mix, allowed, deadline);
                }
            });
        }
    }
    void CallOnce(host::Client &client, Mix &mix, const Allowed &allowed, std::chrono::seconds deadline) {
        const Mix::Call call = mix.Next();
        const auto start = Clock::now();
        const host::CallOutcome outcome = client.Call(call.WithDeadline(deadline));
        const uint32_t status = StatusOf(call, outcome);
        findings_.Add(call, outcome, IsExpected(call, status) || allowed(status), Clock::now() - start, deadline);
        if (outcome.errCode != 0) {
            std::this_thread::sleep_for(2ms); // nobody is there: the processor is needed to come back
        }
    }
    void StopCallers() {
        stop_ = true;
        for (std::thread &caller : callers_) {
            caller.join();
        }
        callers_.clear();
        printf("%" PRIu64 " calls, %" PRIu64 " of them answered, the slowest after %.2f s; by status:", findings_.calls,
               findings_.answered, std::chrono::duration<double>(findings_.slowest).count());
        for (const auto &[status, count] : findings_.byStatus) {
            printf(" %u: %" PRIu64, status, count);
        }
        printf("\n");
        EXPECT_GT(findings_.answered, 0u);
        for (const auto &[key, text] : findings_.failures) {
            ADD_FAILURE() << text;
        }
    }
    void TearDown() override {
        stop_ = true;
        for (std::thread &caller : callers_) {
            caller.join();
        }
        WholeSystem::TearDown();
    }

    // What has its name is whole. Files under hidden names are under way.
    void ExpectWholeFiles() const {
        for (const auto &directory : {state_, logs_, logs_ / "copies", logs_ / "master"}) {
            std::error_code error;
            for (const auto &entry : std::filesystem::directory_iterator(directory, error)) {
                const std::string name = entry.path().filename();
                EXPECT_FALSE(name.ends_with(".damaged")) << name;
                if (name.starts_with(".")) {
                    continue;
                }
                if (name.ends_with(".json")) {
                    ExpectWholeJson(entry.path());
                } else if (name.ends_with(".zip")) {
                    ExpectWholeArchive(entry.path());
                }
            }
        }
    }
    bool DaemonAnswers() {
        const Tarn_sys_diag_Pid request{daemon_->Pid()};
        return Call<Tarn_sys_diag_Tids>("GetAllTidsByPid", request).Status() == 0;
    }

    // All is as it was before the trouble began.
    void ExpectHealth() {
        EXPECT_TRUE(Eventually([this] { return DaemonAnswers(); }));
        EXPECT_TRUE(Eventually([this] { return AgentAnswers(); })) << daemon_->Err();
        EXPECT_TRUE(Eventually([this] { return MasterAnswers(); })) << master_->Err();
        ExpectWholeFiles();
    }

    host::Descriptor Connect() const {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string path = dir_.Path() / "TarnSysdiagTarnd.sock";
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        host::Descriptor fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        return connect(fd.Fd(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ? std::move(fd)
                                                                                                   : host::Descriptor();
    }

    std::vector<std::thread> callers_;
    std::atomic<bool> stop_ = false;
    Findings findings_;
};

TEST_F(Chaos, ProcessesAreKilledAtRandomMoments) {
    std::mt19937_64 random(1);
    std::vector<std::unique_ptr<Process>> clients(2);
    const auto startClient = [this] {
        return std::make_unique<Process>(
            dir_.Path(), std::vector<std::string>{"/usr/bin/env", "TARN_RUN_DIR=" + dir_.Path().string(), TARNCTL,
                                                  "call", "GetTaskInfo", "--repeat", "1000000000"});
    };
    for (auto &client : clients) {
        client = startClient();
    }
    StartCallers(IsPeerFailure);
    size_t daemons = 0, agents = 0, masters = 0, killedClients = 0;
    for (const auto end = Clock::now() + ProofTime(kShort); Clock::now() < end;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 400));
        switch (random() % 5) {
        case 0:
        case 1:
            daemon_.reset(); // kills
            ExpectWholeFiles();
            StartDaemon();
            ++daemons;
            break;
        case 2:
            agent_.reset();
            StartAgent();
            ++agents;
            break;
        case 3:
            master_.reset();
            ExpectWholeFiles();
            StartMaster();
            ++masters;
            break;
        default:
            clients[static_cast<size_t>(random() % clients.size())] = startClient();
            ++killedClients;
        }
    }
    StopCallers();
    clients.clear();
    printf("killed %zu daemons, %zu agents, %zu masters, %zu clients\n", daemons, agents, masters, killedClients);
    ExpectHealth();
}

TEST_F(Chaos, ConnectionsAreCutInMidFrame) {
    StartCallers([](uint32_t) { return false; }, kPatience);
    std::mt19937_64 random(2);
    Mix mix(scene_, 3);
    std::vector<host::Descriptor> silent;
    size_t cuts = 0;
    for (const auto end = Clock::now() + PartOf(ProofTime(kShort), 3); Clock::now() < end; ++cuts) {
        const Mix::Call call = mix.Next();
        host::FrameHeader header;
        header.id = cuts + 1;
        header.length = static_cast<uint32_t>(call.request.size());
        header.deadlineMs = 1000;
        header.typeHash = static_cast<uint32_t>(random());
        strncpy(header.service, "TarnSysdiagTarnd", sizeof header.service - 1);
        strncpy(header.method, call.Name(), sizeof header.method - 1);
        std::vector<uint8_t> frame = host::MakeFrame(header, call.request);
        if (random() % 4 == 0) {
            frame[static_cast<size_t>(random() % frame.size())] = static_cast<uint8_t>(random());
        }
        host::Descriptor fd = Connect();
        if (fd) {
            send(fd.Fd(), frame.data(), static_cast<size_t>(random() % frame.size()), MSG_NOSIGNAL);
        }
        if (cuts % 50 == 0) {
            silent.push_back(std::move(fd));
        }
        std::this_thread::sleep_for(1ms);
    }
    StopCallers();
    printf("%zu connections cut, %zu left silent\n", cuts, silent.size());
    ExpectHealth();
}

TEST_F(Chaos, NoDescriptorIsLeft) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer's own check of virtual calls needs descriptors";
#endif
    const rlimit before{1024, 1024}, tight{48, 1024};
    // Connections that there is no descriptor for are refused.
    StartCallers([](uint32_t status) {
        return IsPeerFailure(status) || status == EMFILE || status == ENFILE || status == 1000 + EBUSY;
    });
    for (const auto end = Clock::now() + PartOf(ProofTime(kShort), 3); Clock::now() < end;) {
        ASSERT_EQ(prlimit(static_cast<pid_t>(daemon_->Pid()), RLIMIT_NOFILE, &tight, nullptr), 0) << strerror(errno);
        std::vector<host::Descriptor> connections;
        for (int i = 0; i < 100; ++i) {
            connections.push_back(Connect());
        }
        std::this_thread::sleep_for(500ms);
        connections.clear();
        ASSERT_EQ(prlimit(static_cast<pid_t>(daemon_->Pid()), RLIMIT_NOFILE, &before, nullptr), 0) << strerror(errno);
        EXPECT_TRUE(Eventually([this] { return DaemonAnswers(); }));
    }
    StopCallers();
    EXPECT_GT(findings_.byStatus[EMFILE], 0u) << "the descriptors were not exhausted";
    ExpectHealth();
}

class FullDisk : public Chaos {
protected:
    // The mount is seen by the processes that are started after it.
    void SetUp() override {
        if (disk_.Mounted()) {
            Chaos::SetUp();
        } else {
            GTEST_SKIP() << "mounting a small tmpfs takes root or user namespaces";
        }
    }
    bool SetsTheTimezone(const char *name) {
        Tarn_sys_diag_SetTimezoneInput request{};
        Set(request.stTimezone.szTimezoneName, name);
        const auto answer = Call<Tarn_sys_diag_Result>("SetTimezone", request);
        return answer.Status() == 0 && answer->uiResult == 0;
    }

    const SmallDisk disk_{logs_, "1m"};
};

TEST_F(FullDisk, LeavesEveryFileWhole) {
    StartCallers([](uint32_t status) { return IsPeerFailure(status) || status == ENOSPC; });
    std::mt19937_64 random(4);
    size_t rounds = 0, killed = 0;
    for (const auto end = Clock::now() + PartOf(ProofTime(kShort), 3); Clock::now() < end; ++rounds) {
        disk_.Fill();
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 300));
        if (random() % 2 == 0) {
            daemon_.reset();
            ExpectWholeFiles();
            StartDaemon();
            ++killed;
        }
        ExpectWholeFiles();
        disk_.Empty();
        EXPECT_TRUE(Eventually([this] { return SetsTheTimezone("CET-1"); })) << "there is room again";
    }
    StopCallers();
    EXPECT_GT(findings_.byStatus[ENOSPC], 0u) << "the disk was not full";
    printf("the disk was full %zu times, %zu daemons killed then\n", rounds, killed);
    ExpectHealth();
}

} // namespace
