// The codec benchmark: rows `system/message/operation`, and a table of what became of the goals. It takes Google
// Benchmark's options, and --instructions=FILE with what bench_instructions counted.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <iostream>

#include "bench/allocations.h"
#include "bench/operation.h"
#include "bench/report.h"

namespace {

using bench::Operation;

size_t BatchOf(uint32_t poolSize) {
    return poolSize == 1 ? 1 : size_t{4} * poolSize;
}

void Measure(benchmark::State &state, const Operation &operation, size_t batch) {
    operation.run(batch);
    const size_t before = bench::AllocationNum();
    operation.run(batch);
    const size_t allocations = bench::AllocationNum() - before;
    while (state.KeepRunningBatch(static_cast<benchmark::IterationCount>(batch))) {
        operation.run(batch);
    }
    const auto bytes = static_cast<double>(operation.bytes);
    state.counters["bytes"] = bytes;
    state.counters["allocations"] = static_cast<double>(allocations) / static_cast<double>(batch);
    state.counters["MB/s"] = benchmark::Counter(bytes / 1e6, benchmark::Counter::kIsIterationInvariantRate);
}

// Keeps the fastest repetition of each row: what disturbs a run only adds to it.
class Collector : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context &) override { return true; }

    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &run : runs) {
            if (run.run_type == Run::RT_Iteration) {
                bench::Row &row = rows_[run.run_name.str()];
                const double time = run.GetAdjustedCPUTime();
                if (row.time == 0 || time < row.time) {
                    row = {time, run.counters.at("bytes"), run.counters.at("allocations")};
                }
            }
        }
    }

    const bench::Rows &rows() const { return rows_; }

private:
    bench::Rows rows_;
};

void Register(const bench::Message &message) {
    bench::Operations operations;
    AddVelto(message, operations);
    AddFloor(message, operations);
    AddProtobuf(message, operations);
    AddCapnp(message, operations);
    AddNanopb(message, operations);
    for (const Operation &operation : operations) {
        const std::string name = operation.system + '/' + operation.message + '/' + operation.name;
        benchmark::RegisterBenchmark(name.c_str(), [operation, batch = BatchOf(message.spec.poolSize)](
                                                       benchmark::State &state) { Measure(state, operation, batch); });
    }
}

// Takes our own option out of the arguments; empty without it.
std::string TakeOption(std::vector<char *> &args, const std::string &prefix) {
    const auto option =
        std::find_if(args.begin(), args.end(), [&](const char *arg) { return std::string(arg).rfind(prefix, 0) == 0; });
    if (option == args.end()) {
        return "";
    }
    const std::string value = std::string(*option).substr(prefix.size());
    args.erase(option);
    return value;
}

int Run(std::vector<char *> args) {
    const std::string path = TakeOption(args, "--instructions=");
    const bench::Instructions instructions = path.empty() ? bench::Instructions() : bench::ReadInstructions(path);
    int argc = static_cast<int>(args.size());
    benchmark::Initialize(&argc, args.data());
    if (benchmark::ReportUnrecognizedArguments(argc, args.data())) {
        return 2;
    }
    benchmark::AddCustomContext("compiler", __VERSION__);
    std::vector<bench::Message> messages;
    for (const bench::MessageSpec &spec : bench::kMessages) {
        messages.push_back(bench::MakeMessage(spec));
    }
    for (const bench::Message &message : messages) {
        Register(message);
    }
    Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);
    PrintReport(std::cout, messages, collector.rows(), instructions);
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    try {
        return Run({argv, argv + argc});
    } catch (const std::exception &error) {
        std::cerr << argv[0] << ": " << error.what() << '\n';
        return 1;
    }
}
