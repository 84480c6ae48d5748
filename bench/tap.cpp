// What the tap, which copies frames for captures, costs a frame of a server: without it, while nobody captures, and
// while somebody does and fetches what was copied.
#include <benchmark/benchmark.h>

#include "host/runtime/tap.h"

namespace {

constexpr size_t kPayload = 64;

struct Frame {
    uint8_t head[64] = {};
    uint8_t payload[kPayload] = {};
};

// Stands for what a server does with a frame: nothing, but the compiler can't know.
void Serve(Frame &frame) {
    benchmark::DoNotOptimize(&frame);
    benchmark::ClobberMemory();
}

void AddTo(host::Tap &tap, const Frame &frame) {
    tap.Add({.length = sizeof frame.head + kPayload}, frame.head, frame.payload);
}

void WithoutTap(benchmark::State &state) {
    Frame frame;
    for ([[maybe_unused]] auto each : state) {
        Serve(frame);
    }
}

void NobodyCaptures(benchmark::State &state) {
    host::Tap tap;
    Frame frame;
    for ([[maybe_unused]] auto each : state) {
        Serve(frame);
        if (tap.IsUsed()) {
            AddTo(tap, frame);
        }
    }
}

void SomebodyCaptures(benchmark::State &state) {
    constexpr int kFetched = 1000; // frames at once
    host::Tap tap;
    const auto reader = tap.Open();
    Frame frame;
    int waiting = 0;
    for ([[maybe_unused]] auto each : state) {
        Serve(frame);
        if (tap.IsUsed()) {
            AddTo(tap, frame);
        }
        if (++waiting == kFetched) {
            benchmark::DoNotOptimize(reader->Take());
            waiting = 0;
        }
    }
}

BENCHMARK(WithoutTap)->Name("frame/without_tap");
BENCHMARK(NobodyCaptures)->Name("frame/nobody_captures");
BENCHMARK(SomebodyCaptures)->Name("frame/somebody_captures");

} // namespace

BENCHMARK_MAIN();
