// crashes: the fatal signals and failed assertions that were recorded, the newest first.
#include <fmt/format.h>
#include <fnmatch.h>

#include <algorithm>
#include <iostream>
#include <sstream>

#include "host/ctl/listing.h"
#include "host/ctl/server.h"
#include "host/ctl/tasks/reports.h"
#include "host/ctl/tasks/tasks.h"
#include "host/ctl/terminal.h"

namespace ctl {

using host::describe::Json;

namespace {

struct Options {
    std::vector<std::string> words;
    std::string last;
    ListOptions list;
};

struct Crash {
    std::string time, name, thread, agent, what; // "signal 11 SIGSEGV, ...", or "assertion ..."
    uint64_t process = 0, tid = 0;
    std::string text;  // all of it
    size_t number = 0; // from the newest
};

// The text between two marks, and what is behind the second.
std::string Between(std::string_view &text, std::string_view first, std::string_view second) {
    const size_t begin = text.find(first);
    const size_t end = begin == text.npos ? text.npos : text.find(second, begin + first.size());
    if (end == text.npos) {
        return "";
    }
    const std::string part(text.substr(begin + first.size(), end - begin - first.size()));
    text.remove_prefix(end);
    return part;
}

// "TIME process 12 (name), thread 13 (name), agent name"; without an agent the line ends before.
Crash CrashOf(const std::string &head) {
    Crash crash;
    crash.time = head.substr(0, head.find(" process "));
    std::string_view rest = head;
    crash.process = NumberOf(Between(rest, " process ", " ("));
    crash.name = Between(rest, " (", "), thread ");
    crash.tid = NumberOf(Between(rest, "), thread ", " ("));
    if (rest.find("), agent ") == rest.npos) {
        crash.thread = Between(rest, " (", ")");
    } else {
        crash.thread = Between(rest, " (", "), agent ");
        crash.agent = rest.substr(std::string_view("), agent ").size());
    }
    return crash;
}

// A record is a head, and lines behind it that start with a blank; other lines are about records that are not there.
void AddRecords(Server &server, const char *method, std::vector<Crash> &crashes) {
    std::istringstream text(server.Ask(method).Named()["text"].get<std::string>());
    for (std::string line; std::getline(text, line);) {
        if (line.find(" process ") != line.npos && !line.starts_with(' ') && !line.starts_with("not read")) {
            crashes.push_back(CrashOf(line));
        } else if (!line.starts_with(' ') || crashes.empty()) {
            std::cerr << "tarnctl: " << line << "\n";
            continue;
        } else if (crashes.back().what.empty()) {
            crashes.back().what = line.substr(line.find_first_not_of(' '));
        }
        crashes.back().text += line + "\n";
    }
}

bool IsMeant(const Crash &crash, const std::string &process) {
    return process.empty() || process == std::to_string(crash.process) || process == crash.agent ||
           fnmatch(process.c_str(), crash.name.c_str(), 0) == 0;
}

// Of processes that may be gone long since.
std::vector<Crash> Find(Server &server, const std::string &process, const std::string &last) {
    std::vector<Crash> crashes;
    AddRecords(server, "GetExceptionInfo", crashes);
    AddRecords(server, "GetAssertInfo", crashes);
    std::ranges::stable_sort(
        crashes, [](const Crash &left, const Crash &right) { return TimeOf(left.time) > TimeOf(right.time); });
    for (size_t i = 0; i < crashes.size(); ++i) {
        crashes[i].number = i + 1;
    }
    std::erase_if(crashes, [&](const Crash &crash) { return !IsMeant(crash, process); });
    if (!last.empty()) {
        const auto since = std::chrono::system_clock::now() - ParseSpan("--last", last);
        std::erase_if(crashes, [&](const Crash &crash) { return TimeOf(crash.time).value_or(since) < since; });
    }
    return crashes;
}

Json JsonOf(const Crash &crash) {
    return {{"number", crash.number}, {"time", TimeJson(crash.time)}, {"process", crash.process},
            {"name", crash.name},     {"thread", crash.tid},          {"thread_name", crash.thread},
            {"agent", crash.agent},   {"what", crash.what},           {"text", crash.text}};
}

void List(const std::vector<Crash> &crashes, const Options &options) {
    Listing listing(options.list, {"number", "time", "process", "name", "thread", "thread-name", "agent", "what"},
                    {"number", "time", "process", "name", "what"});
    for (const Crash &crash : crashes) {
        listing.Add({std::to_string(crash.number), crash.time, std::to_string(crash.process), crash.name,
                     std::to_string(crash.tid), crash.thread, crash.agent, crash.what},
                    JsonOf(crash));
    }
    listing.Show("no crashes");
}

void ShowOne(const std::vector<Crash> &crashes, const std::string &number, bool json) {
    const auto found = std::ranges::find(crashes, NumberOf(number), &Crash::number);
    if (found == crashes.end()) {
        throw Failure(kUsage, crashes.empty()
                                  ? fmt::format("{}: no crashes", number)
                                  : fmt::format("{}: no such crash, expected 1 to {}", number, crashes.back().number));
    }
    if (json) {
        std::cout << JsonOf(*found).dump() << "\n";
    } else {
        const Output output;
        std::cout << found->text;
    }
}

void Crashes(const Globals &globals, const Options &options) {
    std::vector<std::string> words = options.words;
    const bool show = !words.empty() && words.front() == "show";
    if (show || (!words.empty() && words.front() == "list")) {
        words.erase(words.begin());
    }
    if (words.size() > 1 || (show && words.empty())) {
        throw Failure(kUsage, fmt::format("found {} words, expected list, show N or PROCESS", options.words.size()));
    }
    Server server(globals);
    const std::string word = words.empty() ? "" : words.front();
    const std::vector<Crash> crashes = Find(server, show ? "" : word, options.last);
    if (show) {
        ShowOne(crashes, word, options.list.json);
    } else {
        List(crashes, options);
    }
}

} // namespace

void AddCrashes(const Command &program, const Globals &globals) {
    const auto options = std::make_shared<Options>();
    const Command task =
        program.Add("crashes", "Fatal signals and failed assertions that were recorded, the newest first",
                    {"crashes", "crashes --last 1h", "crashes worker", "crashes show 1"});
    task.Operand("WHAT", options->words,
                 "\"list\", as if nothing is given; \"show N\" for all of the one of that number; or a process's id, "
                 "name or pattern, or an agent's name");
    task.Option("--last", options->last, "TIME", "Those of the last so much time: 10m, 1h, 7d");
    AddListOptions(task, options->list);
    task.Run([&globals, options] { Crashes(globals, *options); });
}

} // namespace ctl
