// top: the busiest processes and threads again and again, as the daemon sees them.
#include <fmt/format.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sstream>
#include <thread>

#include "host/ctl/outcome.h"
#include "host/ctl/print.h"
#include "host/ctl/units.h"
#include "host/describe/named.h"
#include "host/meaning/meaning.h"
#include "host/osal/text.h"

namespace ctl {

using namespace host::describe;

namespace {

constexpr std::string_view kService = "TarnSysdiagTarnd";
constexpr size_t kBatchRows = 15; // of each table, where no terminal says how much room there is

// The keys, read one by one and not shown, and the screen as it was when the end comes.
class Terminal {
public:
    Terminal() {
        tcgetattr(STDIN_FILENO, &before_);
        Enter();
        std::signal(SIGINT, Interrupt);
        std::signal(SIGTERM, Interrupt);
        std::signal(SIGTSTP, Suspend);
    }
    ~Terminal() {
        std::signal(SIGTSTP, SIG_DFL);
        std::cout << std::flush;
        Leave();
    }
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;

    static bool IsThere() {
        const char *const kind = getenv("TERM");
        return isatty(STDOUT_FILENO) != 0 && isatty(STDIN_FILENO) != 0 && kind != nullptr && *kind != 0 &&
               strcmp(kind, "dumb") != 0;
    }

    static winsize Size() {
        winsize size{24, 80, 0, 0};
        ioctl(STDOUT_FILENO, TIOCGWINSZ, &size);
        return size;
    }

    // False when the user wants no more.
    static bool Wait(std::chrono::milliseconds time) {
        pollfd keys{STDIN_FILENO, POLLIN, 0};
        char key = 0;
        if (poll(&keys, 1, static_cast<int>(time.count())) > 0 && read(STDIN_FILENO, &key, 1) <= 0) {
            return false;
        }
        return key != 'q' && interrupted_ == 0;
    }

private:
    // Also of a signal's handler: they make system calls only.
    static void Enter() {
        termios raw = before_;
        raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        tcsetattr(STDIN_FILENO, TCSANOW, &raw);
        Write("\033[?1049h\033[?25l"); // another screen, without a cursor
    }
    static void Leave() {
        Write("\033[?25h\033[?1049l");
        tcsetattr(STDIN_FILENO, TCSANOW, &before_);
    }
    static void Write(std::string_view sequence) {
        if (write(STDOUT_FILENO, sequence.data(), sequence.size()) < 0) {
            interrupted_ = 1; // the terminal is gone
        }
    }

    static void Interrupt(int) { interrupted_ = 1; }
    static void Suspend(int) {
        const int error = errno;
        Leave();
        raise(SIGSTOP);
        Enter();
        errno = error;
    }

    static inline volatile std::sig_atomic_t interrupted_ = 0;
    static inline termios before_{};
};

// A reply in the names of its meanings, and what explains it.
struct Told {
    Json reply;
    std::string explanation;
};

Told Ask(host::Client &client, const char *name, const Json &request = Json::object()) {
    const Method &method = RequireMethod(name);
    const auto message = Encode(FromJson(*method.request, FromNamed(request, *method.meaning->request)));
    const host::CallOutcome outcome = client.Call(kService, 0, name, method.request->hash, message);
    if (!outcome.Ok()) {
        throw FailureOf(kService, name, outcome);
    }
    const auto record = Decode(*method.response, outcome.bytes);
    if (!record) {
        throw Failure(kRefused, fmt::format("{}: the reply is refused", name));
    }
    return {ToNamed(ToJson(*record), *method.meaning->response), outcome.explanation};
}

uint64_t Number(const Json &record, const char *member) {
    return record.at(member).get<uint64_t>();
}

std::string Text(const Json &record, const char *member) {
    return host::LineOfText(record.at(member).get_ref<const std::string &>());
}

std::string Share(const Json &record, const char *member) {
    return PermilleText(Number(record, member));
}

std::string Time(uint64_t us) {
    return DurationText(std::chrono::microseconds(us));
}

// What is nobody's has none.
std::string Id(const Json &record, const char *member) {
    const uint64_t id = Number(record, member);
    return id == 0 ? "-" : std::to_string(id);
}

// What there is to say of the processes does not move them.
void PrintCpus(std::ostream &out, const Json &cpus, const Json &memory, const std::string &ofProcesses) {
    const Json &all = cpus.at(0);
    out << fmt::format("CPU busy {} (user {}, system {}, waiting {}), memory in use {}, available {}\n",
                       Share(all, "busy_permille"), Share(all, "user_permille"), Share(all, "system_permille"),
                       Share(all, "waiting_permille"), Share(memory, "now_permille"),
                       SizeText(Number(memory, "available_bytes")));
    std::string line;
    for (size_t i = 1; i < cpus.size(); ++i) {
        line += fmt::format("{}{} {}", i == 1 ? "" : "  ", Text(cpus[i], "name"), Share(cpus[i], "busy_permille"));
    }
    out << line << (ofProcesses.empty() ? "" : "  processes: " + host::LineOfText(ofProcesses)) << "\n";
}

void PrintProcesses(std::ostream &out, Json processes, size_t rows) {
    std::stable_sort(processes.begin(), processes.end(), [](const Json &left, const Json &right) {
        return Number(left, "cpu_permille") > Number(right, "cpu_permille");
    });
    Columns columns;
    columns.Add({"PROCESS", "CPU", "NAME", "HIGHEST", "CPU TIME", "RESIDENT", "THREADS", "STATE", "USER"});
    for (size_t i = 0; i < std::min(rows, processes.size()); ++i) {
        const Json &process = processes[i];
        columns.Add({Id(process, "process"), Share(process, "cpu_permille"), Text(process, "name"),
                     Share(process, "highest_permille"),
                     Time(Number(process, "user_time_us") + Number(process, "system_time_us")),
                     SizeText(Number(process, "resident_bytes")), std::to_string(Number(process, "threads")),
                     Text(process, "state"), Text(process, "user")});
    }
    const auto number = std::ranges::count_if(processes, [](const Json &one) { return Number(one, "process") != 0; });
    out << fmt::format("\n{} processes\n", number);
    columns.Print(out, 0);
}

void PrintThreads(std::ostream &out, const Json &threads) {
    Columns columns;
    columns.Add({"THREAD", "CPU", "NAME", "OF PROCESS", "ON", "CPU TIME"});
    for (const Json &thread : threads) {
        columns.Add({Id(thread, "thread"), Share(thread, "cpu_permille"), Text(thread, "name"),
                     fmt::format("{} ({})", Id(thread, "process"), Text(thread, "process_name")),
                     std::to_string(Number(thread, "on_cpu")), Time(Number(thread, "cpu_time_us"))});
    }
    out << "\nbusiest threads\n";
    columns.Print(out, 0);
}

// `rows` of each table.
std::string Frame(host::Client &client, size_t rows) {
    std::ostringstream out;
    const Told processes = Ask(client, "SysCpuStatInfoQuery");
    PrintCpus(out, Ask(client, "MultiCpuUsageQuery").reply.at("cpus"), Ask(client, "GetKpiMemoryInfo").reply,
              processes.explanation);
    PrintProcesses(out, processes.reply.at("processes"), rows);
    PrintThreads(out, Ask(client, "CalculateAllThreadCpuUse", {{"most", rows}}).reply.at("threads"));
    return out.str();
}

// As much of a line as so many columns show.
std::string_view Cut(std::string_view line, size_t columns) {
    size_t end = 0;
    for (size_t used = 0; end < line.size(); ++end) {
        const bool first = (static_cast<uint8_t>(line[end]) & 0xC0) != 0x80; // of a character
        if (first && ++used > columns) {
            break;
        }
    }
    return line.substr(0, end);
}

// Cut to the screen, each line cleared behind its end, so that nothing flickers.
void Show(const std::string &frame, const winsize &size) {
    std::istringstream in(frame);
    std::string screen = "\033[H", line;
    for (unsigned row = 1; row < size.ws_row && std::getline(in, line); ++row) {
        screen.append(Cut(line, size.ws_col)).append("\033[K\n");
    }
    std::cout << screen << "\033[J"
              << "q ends" << std::flush;
}

} // namespace

void Top(const TopOptions &options) {
    host::Client client({.runDir = options.runDir});
    if (!Terminal::IsThere()) {
        const uint32_t frames = options.frames == 0 ? 1 : options.frames;
        for (uint32_t i = 0; i < frames; ++i) {
            if (i != 0) {
                std::this_thread::sleep_for(options.delay);
            }
            std::cout << (i == 0 ? "" : "\n") << Frame(client, kBatchRows) << std::flush;
        }
        return;
    }
    static_cast<void>(Frame(client, 1)); // fails before the screen is taken
    const Terminal terminal;
    for (uint32_t i = 0; options.frames == 0 || i < options.frames; ++i) {
        const winsize size = Terminal::Size();
        constexpr int kOtherLines = 9;
        Show(Frame(client, static_cast<size_t>(std::max(2, (size.ws_row - kOtherLines) / 2))), size);
        if (!Terminal::Wait(options.delay)) {
            break;
        }
    }
}

} // namespace ctl
