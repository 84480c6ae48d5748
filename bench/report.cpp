#include "bench/report.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <stdexcept>

#include "bench/operation.h"

namespace bench {

namespace {

// Peers that start from a native record and end in one, and those that do not.
constexpr const char *kNativePeers[] = {"protobuf_fill", "capnp", "nanopb"};
constexpr const char *kAllPeers[] = {"protobuf_fill", "capnp", "nanopb", "protobuf"};

constexpr double kPeerGoal = 3, kBlockPeerGoal = 1, kZerosEncodePeerGoal = 2.5;
constexpr double kFloorGoal = 4, kArrayFloorGoal = 2.5, kBlockFloorGoal = 1.25;
constexpr double kCopyRatio = 1.25; // so close to the floor the peer does not matter: nobody beats a copy
constexpr double kArmFloorGoal = 4; // where fields dominate
constexpr double kSwapGoal = 1.03;
constexpr double kSentEncodeGoal = 0.8, kSentDecodeGoal = 1; // of the regular form

std::string Format(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char *format, ...) {
    char text[256];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return text;
}

std::string Name(const char *system, const Message &message, const char *operation) {
    return std::string(system) + '/' + message.spec.name + '/' + operation;
}

const char *Met(bool met) {
    return met ? "met" : "MISSED";
}

class Report {
public:
    Report(std::ostream &out, const Rows &rows, const Instructions &instructions)
        : out_(out), rows_(rows), instructions_(instructions) {}

    void PrintTimes(const std::vector<Message> &messages) {
        out_ << Format("| %-25s | %-9s | %8s | %6s | %6s | %8s | %5s | %4s | %-6s | %-13s | %8s | %5s | %4s | %-6s |\n",
                       "message", "operation", "velto ns", "MB/s", "allocs", "floor ns", "ratio", "goal", "",
                       "best peer", "ns", "ratio", "goal", "");
        out_ << "|---|---|---|---|---|---|---|---|---|---|---|---|---|---|\n";
        for (const char *operation : {"encode", "decode"}) {
            for (const Message &message : messages) {
                PrintTime(message, operation);
            }
        }
    }

    // As the runtime sends each message: types without a fixed form have the same rows twice.
    void PrintSent(const std::vector<Message> &messages) {
        out_ << Format("| %-25s | %-9s | %-7s | %8s | %10s | %5s | %4s | %-6s |\n", "as it is sent", "operation",
                       "form", "ns", "regular ns", "ratio", "goal", "");
        out_ << "|---|---|---|---|---|---|---|---|\n";
        for (const char *operation : {"encode", "decode"}) {
            for (const Message &message : messages) {
                PrintSentRow(message, operation);
            }
        }
    }

    void PrintComparisons(const std::vector<Message> &messages) {
        for (const char *operation : {"encode", "decode"}) {
            for (const Message &message : messages) {
                CompareWithin(message, operation);
            }
        }
        double sum = 0;
        size_t num = 0;
        for (const Message &message : messages) {
            for (const char *operation : {"encode", "decode"}) {
                const double plain = Time("velto_unswapped", message, operation);
                if (plain > 0) {
                    const double ratio = Time("velto", message, operation) / plain;
                    out_ << Format("- %-25s %-6s with the byte-swapped branch: %.3f of the time without\n",
                                   message.spec.name, operation, ratio);
                    sum += std::log(ratio);
                    ++num;
                }
            }
        }
        if (num != 0) {
            const double mean = std::exp(sum / static_cast<double>(num));
            out_ << Format("- geometric mean %.3f, goal below %.2f: %s\n", mean, kSwapGoal, Met(mean < kSwapGoal));
        }
    }

    void PrintInstructions(const std::vector<Message> &messages) {
        out_ << Format("| %-25s | %-9s | %9s | %9s | %5s | %4s | %-6s | %9s | %6s |\n", "ARM instructions of",
                       "operation", "velto", "floor", "ratio", "goal", "", "nanopb", "ratio");
        out_ << "|---|---|---|---|---|---|---|---|---|\n";
        for (const char *operation : {"encode", "decode"}) {
            for (const Message &message : messages) {
                PrintInstructionsRow(message, operation);
            }
        }
    }

private:
    double Time(const char *system, const Message &message, const char *operation) const {
        const auto row = rows_.find(Name(system, message, operation));
        return row == rows_.end() ? 0 : row->second.time;
    }

    double Count(const char *system, const Message &message, const char *operation) const {
        const auto count = instructions_.find(Name(system, message, operation));
        return count == instructions_.end() ? NAN : count->second;
    }

    template <size_t kNum>
    const char *BestOf(const char *const (&peers)[kNum], const Message &message, const char *operation) const {
        const char *best = nullptr;
        for (const char *const peer : peers) {
            const double time = Time(peer, message, operation);
            if (time > 0 && (best == nullptr || time < Time(best, message, operation))) {
                best = peer;
            }
        }
        return best;
    }

    void PrintSentRow(const Message &message, const char *operation) {
        const double sent = Time("sent", message, operation), regular = Time("velto", message, operation);
        if (sent == 0 || regular == 0) {
            return; // filtered out
        }
        const bool fixed = FindCodecs(VeltoCodecs(), message.spec.type).packFixed != nullptr;
        const double ratio = sent / regular;
        out_ << Format("| %-25s | %-9s | %-7s | %8.1f | %10.1f | %5.2f |", message.spec.name, operation,
                       fixed ? "fixed" : "regular", sent, regular, ratio);
        const double goal = std::string(operation) == "encode" ? kSentEncodeGoal : kSentDecodeGoal;
        out_ << (fixed ? Format(" %4.2f | %-6s |\n", goal, Met(ratio <= goal)) : Format(" %4s | %-6s |\n", "-", "-"));
    }

    void PrintInstructionsRow(const Message &message, const char *operation) {
        const double velto = Count("velto", message, operation);
        const double floor = Count("floor", message, operation);
        const double nanopb = Count("nanopb", message, operation);
        const double ratio = velto / floor;
        out_ << Format("| %-25s | %-9s | %9.0f | %9.0f | %5.2f |", message.spec.name, operation, velto, floor, ratio);
        out_ << (message.spec.dominated == Dominated::kByFields
                     ? Format(" %4.2f | %-6s |", kArmFloorGoal, Met(ratio <= kArmFloorGoal))
                     : Format(" %4s | %-6s |", "-", "-"));
        out_ << (std::isnan(nanopb) ? Format(" %9s | %6s |\n", "-", "-")
                                    : Format(" %9.0f | %6.2f |\n", nanopb, nanopb / velto));
    }

    void PrintTime(const Message &message, const char *operation) {
        const auto row = rows_.find(Name("velto", message, operation));
        if (row == rows_.end()) {
            return; // filtered out
        }
        const Row &velto = row->second;
        out_ << Format("| %-25s | %-9s | %8.1f | %6.0f | %6.1f |", message.spec.name, operation, velto.time,
                       velto.bytes / velto.time * 1e3, velto.allocations);
        const bool block = message.spec.dominated == Dominated::kByOneBlock;
        const Record &record = message.records.front();
        const bool arrays = static_cast<double>(record.arrayBytes) > velto.bytes / 2;
        const double floor = Time("floor", message, operation);
        PrintFloor(floor, velto.time, block ? kBlockFloorGoal : arrays ? kArrayFloorGoal : kFloorGoal);
        const char *const peer =
            block ? BestOf(kAllPeers, message, operation) : BestOf(kNativePeers, message, operation);
        PrintPeer(peer, peer == nullptr ? 0 : Time(peer, message, operation), velto.time, PeerGoal(message, operation),
                  velto.time <= kCopyRatio * floor);
        out_ << '\n';
    }

    void PrintFloor(double floor, double velto, double goal) {
        const double ratio = velto / floor;
        out_ << Format(" %8.1f | %5.2f | %4.2f | %-6s |", floor, ratio, goal, Met(ratio <= goal));
    }

    static double PeerGoal(const Message &message, const char *operation) {
        if (message.spec.dominated == Dominated::kByOneBlock) {
            return kBlockPeerGoal;
        }
        return message.spec.zeroPercent != 0 && std::string(operation) == "encode" ? kZerosEncodePeerGoal : kPeerGoal;
    }

    void PrintPeer(const char *peer, double time, double velto, double goal, bool copies) {
        if (peer == nullptr) {
            out_ << " - | - | - | - | - |";
            return;
        }
        const double ratio = time / velto;
        out_ << Format(" %-13s | %8.1f | %5.2f | %4.2f | %-6s |", peer, time, ratio, goal,
                       copies && ratio < goal ? "floor" : Met(ratio >= goal));
    }

    // Of a message with elements: the time per element against that of fewer, and with zeros against without. What is
    // asked of zeros is in the table, against the peers.
    void CompareWithin(const Message &message, const char *operation) {
        const std::string name = message.spec.name;
        const double time = Time("velto", message, operation);
        const std::string zeros = "_zeros";
        if (time == 0 || name.rfind("SysCpuStatInfo", 0) != 0) {
            return;
        }
        if (name.ends_with(zeros)) {
            const auto all = rows_.find("velto/" + name.substr(0, name.size() - zeros.size()) + '/' + operation);
            if (all != rows_.end()) {
                out_ << Format("- %-25s %-6s half of the scalars 0: %.2f of the time of all set\n", name.c_str(),
                               operation, time / all->second.time);
            }
        } else if (message.spec.elementNum == 256) {
            const auto few = rows_.find(std::string("velto/SysCpuStatInfo_16/") + operation);
            if (few != rows_.end()) {
                const double ratio = time / 256 / (few->second.time / 16);
                out_ << Format("- %-25s %-6s time per element: %.2f of that of 16, goal at most 1: %s\n", name.c_str(),
                               operation, ratio, Met(ratio <= 1));
            }
        }
    }

    std::ostream &out_;
    const Rows &rows_;
    const Instructions &instructions_;
};

} // namespace

Instructions ReadInstructions(const std::string &path) {
    std::ifstream in(path);
    Instructions instructions;
    std::string name;
    for (double count; in >> name >> count;) {
        instructions[name] = count;
    }
    if (instructions.empty()) {
        throw std::runtime_error(path + ": no counts of instructions; expected lines of a row's name and a number");
    }
    return instructions;
}

void PrintReport(std::ostream &out, const std::vector<Message> &messages, const Rows &rows,
                 const Instructions &instructions) {
    Report report(out, rows, instructions);
    report.PrintTimes(messages);
    out << '\n';
    report.PrintSent(messages);
    out << '\n';
    report.PrintComparisons(messages);
    if (!instructions.empty()) {
        out << '\n';
        report.PrintInstructions(messages);
    }
}

} // namespace bench
