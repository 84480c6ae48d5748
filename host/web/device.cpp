#include "host/web/device.h"

#include <algorithm>

#include "host/web/ask.h"

namespace web {

using host::describe::Json;
using std::chrono::milliseconds;

namespace {

struct Question {
    std::string_view topic;
    const char *method;
    milliseconds every;
};
constexpr Question kQuestions[] = {
    {"cpus", "MultiCpuUsageQuery", milliseconds(1000)},
    {"cpu", "GetKpiCpuInfo", milliseconds(1000)},
    {"memory", "GetKpiMemoryInfo", milliseconds(1000)},
    {"health", "TarnPadsGetSystemHealthInfoByTarnd", milliseconds(2000)},
    {"processes", "SysCpuStatInfoQuery", milliseconds(1000)},
    {"measurement", "TarnGetDimMeasRstByTarnd", milliseconds(1000)},
};
constexpr std::string_view kThreads = "threads:"; // and the id of their process

Live::Topic ThreadsOf(host::Client &client, const std::string &process) {
    constexpr uint32_t kMost = 256;
    const Json request{{"process", process}, {"most", kMost}};
    return {[&client, request] { return Ask(client, "CalculateProcThreadCpuUse", request); }, milliseconds(1000)};
}

// Of each minute of the last hour.
Json Figures(host::Client &client) {
    const auto since = std::chrono::system_clock::now() - std::chrono::hours(1);
    return AskOwn(client, "Figures",
                  {{"since_ms", std::chrono::duration_cast<milliseconds>(since.time_since_epoch()).count()}});
}

std::optional<Live::Topic> TopicOf(host::Client &client, const std::string &name) {
    if (name == "figures") {
        return Live::Topic{[&client] { return Figures(client); }, std::chrono::seconds(20)};
    }
    if (name.starts_with(kThreads)) {
        const std::string process = name.substr(kThreads.size());
        const bool isNumber = !process.empty() && process.find_first_not_of("0123456789") == process.npos;
        return isNumber ? std::optional(ThreadsOf(client, process)) : std::nullopt;
    }
    const auto *const question = std::ranges::find(kQuestions, name, &Question::topic);
    if (question == std::end(kQuestions)) {
        return std::nullopt;
    }
    return Live::Topic{[&client, question] { return Ask(client, question->method); }, question->every};
}

std::vector<std::string> ProgramOf(const std::string &tarnctl, const std::string &runDir) {
    std::vector<std::string> program{tarnctl, "--quiet"};
    if (!runDir.empty()) {
        program.insert(program.end(), {"--run-dir", runDir});
    }
    return program;
}

} // namespace

Device::Device(const std::string &runDir, const std::string &tarnctl)
    : client_({.runDir = runDir}), live([this](const std::string &name) { return TopicOf(client_, name); }),
      tasks(ProgramOf(tarnctl, runDir)),
      events(tasks.WordsOf({"events", "--last", "1000", "--follow", "--json"}), [this] { tasks.Forget(); }) {}

} // namespace web
