// capture: asks a server again and again for what it has received and sent.
#include "host/ctl/capture/capture.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <deque>
#include <fstream>
#include <iostream>
#include <set>

#include "host/ctl/capture/headers.h"
#include "host/ctl/capture/pcapng.h"
#include "host/ctl/outcome.h"
#include "host/ctl/process.h"
#include "host/runtime/status.h"

namespace ctl {

namespace {

volatile std::sig_atomic_t interrupted = 0;

// The first signal ends the capture, the next one the program.
void WatchInterrupt() {
    struct sigaction action {};
    action.sa_handler = [](int) { interrupted = 1; };
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

template <class Value>
bool IsOneOf(const std::vector<Value> &all, const Value &one) {
    return all.empty() || std::ranges::find(all, one) != all.end();
}

// Which frames are asked for: an answer's method is its request's.
class Filter {
public:
    explicit Filter(const CaptureOptions &options) {
        Server server({.runDir = options.runDir});
        for (const std::string &text : options.processes) {
            for (const Process &process : FindProcesses(server, text)) {
                processes_.push_back(process.pid);
            }
        }
        for (const std::string &method : options.methods) {
            methods_.emplace_back(RequireMethod(method).name);
        }
    }

    bool Takes(const host::TappedFrame &frame) {
        const auto header = HeaderOf(frame);
        if (!header || !IsOneOf(processes_, frame.process)) {
            return false;
        }
        if (methods_.empty()) {
            return true;
        }
        if (IsRequest(*header)) {
            const bool wanted = IsOneOf(methods_, std::string(header->method));
            if (wanted && header->kind == host::FrameKind::kRequest) {
                calls_.insert(KeyOf(frame, *header));
            }
            return wanted;
        }
        const bool ends = header->kind != host::FrameKind::kCancel;
        return ends ? calls_.erase(KeyOf(frame, *header)) != 0 : calls_.contains(KeyOf(frame, *header));
    }

private:
    std::vector<uint32_t> processes_;
    std::vector<std::string> methods_;
    std::set<CallKey> calls_; // that are not answered
};

// Keeps the last frames, if there are to be so many, and writes the others.
class Sink {
public:
    Sink(std::ostream &out, size_t last) : out_(out), writer_(out), last_(last) {}

    void Add(const host::TappedFrame &frame) {
        ++count_;
        if (last_ == 0) {
            writer_.Write(frame);
            return;
        }
        kept_.push_back({frame, {frame.bytes.begin(), frame.bytes.end()}});
        if (kept_.size() > last_) {
            kept_.pop_front();
            --count_;
        }
    }

    void Flush() { out_.flush(); }

    uint64_t End() {
        for (Kept &one : kept_) {
            one.frame.bytes = one.bytes;
            writer_.Write(one.frame);
        }
        out_.flush();
        return count_;
    }

private:
    struct Kept {
        host::TappedFrame frame;
        std::vector<uint8_t> bytes;
    };
    std::ostream &out_;
    PcapngWriter writer_;
    const size_t last_;
    std::deque<Kept> kept_;
    uint64_t count_ = 0;
};

// What a server captures, asked for again and again over one connection.
class Source {
public:
    explicit Source(const CaptureOptions &options)
        : client_({.runDir = options.runDir}), service_(options.pid ? "TarnSysdiagAgent" : options.service),
          pid_(options.pid.value_or(0)) {}

    // Whose bytes stay until the next time.
    host::Tapped Take() {
        outcome_ = host::AskCapture(client_, service_, pid_);
        if (!outcome_.Ok()) {
            throw FailureOf(service_, "Capture", outcome_);
        }
        auto tapped = host::ReadTapped(outcome_.bytes);
        if (!tapped) {
            throw Failure(kRefused, fmt::format("{}: what it answers is no capture", service_));
        }
        return std::move(*tapped);
    }

private:
    host::Client client_;
    const std::string service_;
    const uint32_t pid_;
    host::CallOutcome outcome_;
};

// Up to the frames of when it is interrupted. How many were dropped.
uint64_t CaptureInto(Sink &sink, Source &source, Filter &filter) {
    constexpr int kPauseMs = 100;
    uint64_t dropped = 0;
    std::optional<host::WallTime> end;
    while (true) {
        if (interrupted != 0 && !end) {
            end = std::chrono::system_clock::now();
        }
        const host::Tapped tapped = source.Take();
        dropped += tapped.dropped;
        for (const host::TappedFrame &frame : tapped.frames) {
            if (filter.Takes(frame)) {
                sink.Add(frame);
            }
        }
        sink.Flush();
        if (end && (tapped.frames.empty() || tapped.frames.back().time > *end)) {
            return dropped;
        }
        if (tapped.frames.empty()) {
            poll(nullptr, 0, kPauseMs); // or until a signal
        }
    }
}

// Opened when there is something to capture.
std::ostream &Open(std::ofstream &file, const std::string &name) {
    if (name.empty()) {
        return std::cout;
    }
    file.open(name, std::ios::binary | std::ios::trunc);
    if (!file) {
        throw Failure(kOther, fmt::format("{}: cannot be written", name));
    }
    return file;
}

} // namespace

void Capture(const CaptureOptions &options) {
    if (options.output.empty() && isatty(STDOUT_FILENO) != 0) {
        throw Failure(kUsage, "found a terminal, expected -o FILE or another program to write to");
    }
    Filter filter(options);
    Source source(options);
    source.Take(); // from now on it captures
    WatchInterrupt();
    std::ofstream file;
    std::ostream &out = Open(file, options.output);
    std::cerr << "tarnctl: capturing until it is interrupted\n";
    Sink sink(out, options.last);
    const uint64_t dropped = CaptureInto(sink, source, filter);
    const uint64_t count = sink.End();
    if (!out) {
        throw Failure(kOther, fmt::format("{}: cannot be written", options.output.empty() ? "output" : options.output));
    }
    std::cerr << fmt::format("tarnctl: {} frames captured, {} dropped\n", count, dropped);
}

} // namespace ctl
