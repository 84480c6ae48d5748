// fleet top: the busiest devices of a fleet, and the busiest processes of all of them.
#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <list>
#include <map>
#include <sstream>

#include "host/ctl/fleet/commands.h"
#include "host/ctl/fleet/round.h"
#include "host/ctl/screen.h"
#include "host/ctl/server.h"
#include "host/ctl/table.h"
#include "host/describe/moment.h"
#include "host/meaning/meaning.h"

namespace ctl {

using namespace host::describe;

namespace {

// What a device answered.
struct Busy {
    std::string device;
    Elements cpus; // all together first
    Reply memory;
    Elements processes;

    uint64_t Permille() const { return cpus.Number(cpus.wire.at(0), "busy"); }
};

// A process of a device.
struct Row {
    const Busy *of;
    const Json *process;
};

class FleetView {
public:
    FleetView(const Globals &globals, Fleet &fleet, const FleetOptions &options)
        : globals_(globals), fleet_(fleet), options_(options) {}

    std::string Frame(size_t lines);
    std::string JsonFrame(); // a line

private:
    // To each method, from each device, an answer.
    using Replies = std::map<std::string, std::vector<Reply>>;
    void Ask();
    void Ask(const char *method, Replies &replies);
    void PrintDevices(std::ostream &out, size_t rows) const;
    void PrintProcesses(std::ostream &out, size_t rows) const;

    const Globals globals_;
    Fleet &fleet_;
    const FleetOptions &options_;
    std::vector<Hello> devices_;
    std::list<Busy> busy_;                      // the busiest first
    std::map<std::string, std::string> failed_; // devices that have not answered, and why
};

void FleetView::Ask() {
    devices_ = SomeHellos(fleet_, options_.devices);
    failed_.clear();
    Replies replies;
    for (const char *const method : {"MultiCpuUsageQuery", "GetKpiMemoryInfo", "SysCpuStatInfoQuery"}) {
        Ask(method, replies);
    }
    busy_.clear();
    for (const auto &[device, of] : replies) {
        if (!failed_.contains(device)) {
            busy_.push_back({device, of[0].In("cpus"), of[1], of[2].In("processes")});
        }
    }
    busy_.sort([](const Busy &left, const Busy &right) { return left.Permille() > right.Permille(); });
}

// Those that have not failed before.
void FleetView::Ask(const char *name, Replies &replies) {
    const Method &method = RequireMethod(name);
    const std::vector<uint8_t> message = Encode(RecordOf(method, Json::object()));
    std::vector<Hello> devices;
    std::ranges::copy_if(devices_, std::back_inserter(devices),
                         [this](const Hello &device) { return !failed_.contains(device.device); });
    Progress progress(globals_, name, devices.size());
    AskAll(
        fleet_, devices, options_.atATime.value_or(kCallsAtATime), progress,
        [&](const Hello &) { return AskedFor(method, message, DeadlineOf(options_.deadline)); },
        [&](Answer &&answer) {
            try {
                replies[answer.device.device].push_back(ReplyTo(method, answer.outcome));
            } catch (const Failure &failure) {
                failed_[answer.device.device] = failure.what();
            }
            return true;
        });
}

void FleetView::PrintDevices(std::ostream &out, size_t rows) const {
    Table table({"DEVICE", "CPU", "MEMORY", "AVAILABLE", "PROCESSES"});
    for (const Busy &device : busy_) {
        if (rows-- == 0) {
            break;
        }
        table.Add({device.device, device.cpus.Text(device.cpus.wire.at(0), "busy"), device.memory.Text("now"),
                   device.memory.Text("available"), std::to_string(device.processes.wire.size())});
    }
    table.Print(out);
}

void FleetView::PrintProcesses(std::ostream &out, size_t rows) const {
    std::vector<Row> processes;
    for (const Busy &device : busy_) {
        std::ranges::transform(device.processes.wire, std::back_inserter(processes), [&](const Json &process) {
            return Row{&device, &process};
        });
    }
    std::ranges::stable_sort(processes, std::ranges::greater(),
                             [](const Row &row) { return row.of->processes.Number(*row.process, "cpu"); });
    processes.resize(std::min(rows, processes.size()));
    Table table({"DEVICE", "PROCESS", "CPU", "NAME", "RESIDENT", "THREADS", "USER"});
    for (const Row &row : processes) {
        std::vector<std::string> cells{row.of->device};
        for (const char *member : {"process", "cpu", "name", "resident", "threads", "user"}) {
            cells.push_back(row.of->processes.Text(*row.process, member));
        }
        table.Add(cells);
    }
    table.Print(out);
}

std::string FleetView::Frame(size_t lines) {
    constexpr size_t kOtherLines = 5; // heads and empty ones
    const size_t rows = std::max<size_t>(2, lines > kOtherLines ? lines - kOtherLines : 0);
    Ask();
    std::ostringstream out;
    out << fmt::format("{} answered, {} did not\n\n", busy_.size(), failed_.size());
    const size_t ofDevices = std::min(rows / 2, std::max<size_t>(busy_.size(), 1));
    PrintDevices(out, ofDevices);
    out << "\n";
    PrintProcesses(out, rows - ofDevices);
    return out.str();
}

std::string FleetView::JsonFrame() {
    Ask();
    Json devices = Json::array();
    for (const Busy &device : busy_) {
        devices.push_back({{"device", device.device},
                           {"cpus", device.cpus.Named()},
                           {"memory", device.memory.Named()},
                           {"processes", device.processes.Named()}});
    }
    for (const auto &[name, failure] : failed_) {
        devices.push_back({{"device", name}, {"failure", failure}});
    }
    const Json frame{{"time", Rfc3339(std::chrono::system_clock::now())}, {"devices", devices}};
    return frame.dump() + "\n";
}

// A progress would be drawn into the view.
Globals Quietly(Globals globals) {
    globals.quiet = true;
    return globals;
}

} // namespace

void TopOfFleet(const Globals &globals, const FleetOptions &options) {
    Fleet fleet(globals);
    FleetView view(Quietly(globals), fleet, options);
    Repeat(
        options.repetition,
        [&](size_t lines) { return options.repetition.json ? view.JsonFrame() : view.Frame(lines); }, [](char) {},
        "q ends");
}

} // namespace ctl
