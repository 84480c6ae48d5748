// The call benchmark: what each proxy variant and each shape of wrapper does around a runtime that does nothing.
// Rows are `library/call/method`, and `runtime/call/method` with the runtime's own functions alone, in the same order
// and with the same arguments, as a program would call them that has a codec table and checks nothing. Instructions are
// callgrind's: it runs this program again with --count.
#include <benchmark/benchmark.h>
#include <valgrind/callgrind.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <set>

#include "bench/runtime.h"
#include "server/frame.h"

TARN_UNIT()

#include "tarn_sysdiag/client/agent.h"
#include "tarn_sysdiag/server/tarnd.h"
#include "tarn_sysdiag/server/tarnd_agent.h"

namespace {

// The codec table's six words, and a few dozen more.
constexpr double kGoal = 6 + 36;
constexpr size_t kCalls = 100;

struct Call {
    std::string name; // call/method
    std::function<void(size_t)> whole, runtime;
};

template <class Function>
std::function<void(size_t)> Repeat(Function function) {
    return [function](size_t count) {
        for (; count != 0; --count) {
            function();
            asm volatile("" ::: "memory");
        }
    };
}

using Request = Tarn_sys_diag_DbgCmdResultGetInput;
using Response = Tarn_sys_diag_DiagResult;
using Order = Tarn_sys_diag_DbgCmdShowInput;

Request request;
Response response;
Order order;
IdlCodecTable codec;
IdlMethodName methodName;
IdlCallResult result;

void Callback(const IdlCallResult *, void *, void *) {}

void *Invoker() {
    return RPC_GetRpcInvoke(&g_stServerAddr_TarnSysdiagAgent, nullptr);
}

template <class Record>
void *Create() {
    return RPC_IdlMsgCreate(velto::kNativeSize<Record>, g_uiMoraModuleId, "");
}

template <class Record>
void Copy(const Record &record, void *message) {
    memcpy_s(message, velto::kNativeSize<Record>, &record, velto::kNativeSize<Record>);
}

// The context is how this function takes its arguments.
void AsyncCall(void *invoker, void *sent, void *received) {
    const IdlAsyncCtx context = {invoker, sent, received, Callback, nullptr, &methodName, &codec, {}};
    RPC_IdlMsgAsyncCall(&context);
}

std::vector<Call> ProxyCalls() {
    return {
        {"SetIdl/DBGCmdExecResultGet", Repeat([] { TarnSysdiagAgent_DBGCmdExecResultGetSetIdl(&codec); }),
         Repeat([] {})},
        {"sync/DBGCmdExecResultGet", Repeat([] { TarnSysdiagAgent_DBGCmdExecResultGet(&request, &response, nullptr); }),
         Repeat([] { RPC_IdlMsgSyncCall(&result, Invoker(), &request, &response, &methodName, &codec); })},
        {"async/DBGCmdExecResultGet",
         Repeat([] { TarnSysdiagAgent_DBGCmdExecResultGet_async(&request, Callback, nullptr, nullptr); }), Repeat([] {
             void *const invoker = Invoker();
             void *const sent = Create<Request>();
             void *const received = Create<Response>();
             memset_s(received, velto::kNativeSize<Response>, 0, velto::kNativeSize<Response>);
             Copy(request, sent);
             AsyncCall(invoker, sent, received);
         })},
        {"sync_no_reply/DBGCmdExecShow", Repeat([] { TarnSysdiagAgent_DBGCmdExecShow(&order, nullptr); }), Repeat([] {
             void *const invoker = Invoker();
             void *const message = Create<Order>();
             Copy(order, message);
             RPC_IdlMsgSyncCall(&result, invoker, message, nullptr, &methodName, &codec);
             RPC_IdlMsgDestroy(message, g_uiMoraModuleId, "");
         })},
        {"async_no_reply/DBGCmdExecShow",
         Repeat([] { TarnSysdiagAgent_DBGCmdExecShow_async(&order, Callback, nullptr, nullptr); }), Repeat([] {
             void *const invoker = Invoker();
             void *const message = Create<Order>();
             Copy(order, message);
             AsyncCall(invoker, message, nullptr);
         })},
        {"async_no_callback/DBGCmdExecShow",
         Repeat([] { TarnSysdiagAgent_DBGCmdExecShow_async(&order, nullptr, nullptr, nullptr); }),
         Repeat([] { RPC_IdlMsgOnewayCall(Invoker(), &order, &methodName, &codec); })},
        {"oneway/DBGCmdExecShow", Repeat([] { TarnSysdiagAgent_DBGCmdExecShow_oneway(&order, nullptr); }),
         Repeat([] { RPC_IdlMsgOnewayCall(Invoker(), &order, &methodName, &codec); })},
    };
}

constexpr const char *kShapeNames[] = {"fixed_reply",   "variable_reply", "owning_request",
                                       "large_request", "oneway",         "oneway_owning_request"};

IdlServerCodecTable serverCodec;
alignas(8) unsigned char frameBuffer[server::kCallBuffer];

// What a wrapper of this shape asks of the runtime, the platform and the daemon.
template <server::Shape kShape, class Record, class Method>
void RuntimeOfWrapper(void *object, Method method) {
    constexpr uint32_t kSize = velto::kNativeSize<Record>;
    constexpr bool kLarge = kShape == server::Shape::kLargeRequest;
    void *const buffer = kLarge ? RPC_IdlMsgNew(kSize, 0) : frameBuffer;
    memset_s(buffer, kSize, 0, kSize);
    void *const record = RPC_IdlReqVeltoMsgUnPack(object, buffer, &serverCodec);
    memcpy_s(RPC_GetUsrFuncLib(record), sizeof serverCodec, &serverCodec, sizeof serverCodec);
    method(static_cast<const Record *>(record), object);
    if (kLarge) {
        RPC_IdlMsgFree(record, 0);
    }
}

// Enters the first method of each shape.
class WrapperCalls {
public:
    template <class Record, class Reply, class Method>
    void Add(const char *name, IdlWrapperFn wrapper, Method method) {
        constexpr server::Shape kShape = server::ShapeOf<Record, Reply>();
        if (known_.insert(kShape).second) {
            void *const object = bench::RuntimeObject();
            calls_.push_back({std::string(kShapeNames[static_cast<size_t>(kShape)]) + '/' + name,
                              Repeat([=] { wrapper(object, object, &serverCodec); }),
                              Repeat([=] { RuntimeOfWrapper<kShape, Record>(object, method); })});
        }
    }

    std::vector<Call> Calls() {
        if (known_.size() != std::size(kShapeNames)) {
            throw std::runtime_error("a shape of wrapper has no method; expected all six");
        }
        return calls_;
    }

private:
    std::set<server::Shape> known_;
    std::vector<Call> calls_;
};

std::vector<Call> ShapeCalls() {
    WrapperCalls wrappers;
#define TARN_METHOD(method, request, response)                                                                         \
    wrappers.Add<Tarn_sys_diag_##request, Tarn_sys_diag_##response>(                                                   \
        #method, method##_wrapper, [](const Tarn_sys_diag_##request *record, void *ctx) { method(record, ctx); });
#define TARN_METHOD_NO_REPLY(method, request)                                                                          \
    wrappers.Add<Tarn_sys_diag_##request, server::NoReply>(                                                            \
        #method, method##_wrapper, [](const Tarn_sys_diag_##request *record, void *) { method(record); });
#include "tarn_sysdiag/server/tarnd_methods.h"
    return wrappers.Calls();
}

struct Row {
    std::string name;
    std::function<void(size_t)> run;
};

std::vector<Row> Rows() {
    std::vector<Row> rows;
    for (const std::vector<Call> &calls : {ProxyCalls(), ShapeCalls()}) {
        for (const Call &call : calls) {
            rows.push_back({"library/" + call.name, call.whole});
            rows.push_back({"runtime/" + call.name, call.runtime});
        }
    }
    return rows;
}

// Under callgrind: the instructions of twice as many calls, then of as many.
void CountAll() {
    for (const Row &row : Rows()) {
        const std::string twice = row.name + " 2", once = row.name + " 1";
        row.run(kCalls); // binds lazily
        CALLGRIND_ZERO_STATS;
        row.run(2 * kCalls);
        CALLGRIND_DUMP_STATS_AT(twice.c_str());
        row.run(kCalls);
        CALLGRIND_DUMP_STATS_AT(once.c_str());
    }
}

std::map<std::string, double> ReadDumps(const std::filesystem::path &folder) {
    std::map<std::string, double> totals;
    const std::string trigger = "desc: Trigger: Client Request: ", summary = "totals: ";
    for (const auto &file : std::filesystem::directory_iterator(folder)) {
        std::ifstream in(file.path());
        std::string name;
        for (std::string line; std::getline(in, line);) {
            if (line.rfind(trigger, 0) == 0) {
                name = line.substr(trigger.size());
            } else if (line.rfind(summary, 0) == 0) {
                totals[name] = std::stod(line.substr(summary.size()));
            }
        }
    }
    return totals;
}

using Counts = std::map<std::string, double>;

Counts CountInstructions(const std::string &self) {
    const auto folder = std::filesystem::path(self).parent_path() / "callgrind";
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    const std::string command =
        "valgrind -q --tool=callgrind --callgrind-out-file='" + folder.string() + "/out' '" + self + "' --count";
    if (std::system(command.c_str()) != 0) {
        throw std::runtime_error("cannot count instructions: " + command);
    }
    const std::map<std::string, double> totals = ReadDumps(folder);
    Counts counts;
    for (const Row &row : Rows()) {
        counts[row.name] = (totals.at(row.name + " 2") - totals.at(row.name + " 1")) / kCalls;
    }
    return counts;
}

class Collector : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context &) override { return true; }
    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &run : runs) {
            double &time = times[run.run_name.str()];
            if (run.run_type == Run::RT_Iteration && (time == 0 || run.GetAdjustedCPUTime() < time)) {
                time = run.GetAdjustedCPUTime();
            }
        }
    }
    std::map<std::string, double> times;
};

void Print(const std::map<std::string, double> &times, const Counts &counts) {
    printf("| %-45s | %5s | %12s | %13s | %6s | %4s | %-6s |\n", "call", "ns", "instructions", "runtime's own",
           "beyond", "goal", "");
    printf("|---|---|---|---|---|---|---|\n");
    for (const std::vector<Call> &calls : {ProxyCalls(), ShapeCalls()}) {
        for (const Call &call : calls) {
            const double own = counts.at("runtime/" + call.name);
            const double all = counts.at("library/" + call.name);
            printf("| %-45s | %5.1f | %12.0f | %13.0f | %6.0f | %4.0f | %-6s |\n", call.name.c_str(),
                   times.at("library/" + call.name), all, own, all - own, kGoal, all - own <= kGoal ? "met" : "MISSED");
        }
    }
}

int Run(int argc, char **argv) {
    if (argc == 2 && std::string(argv[1]) == "--count") {
        CountAll();
        return 0;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    benchmark::AddCustomContext("compiler", __VERSION__);
    const Counts counts = CountInstructions(std::filesystem::canonical("/proc/self/exe"));
    for (const Row &row : Rows()) {
        benchmark::RegisterBenchmark(row.name.c_str(), [row, count = counts.at(row.name)](benchmark::State &state) {
            while (state.KeepRunningBatch(kCalls)) {
                row.run(kCalls);
            }
            state.counters["instructions"] = count;
        });
    }
    Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);
    Print(collector.times, counts);
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception &error) {
        std::cerr << argv[0] << ": " << error.what() << '\n';
        return 1;
    }
}
