// The commands of tarnctl. Each writes its result to standard output and throws Failure.
#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/describe/json.h"
#include "host/runtime/limits.h"

namespace ctl {

enum ExitCode {
    kDone = 0,
    kOther = 1, // files, memory
    kUsage = 2,
    kConnection = 3,
    kDeadline = 4,
    kRemote = 5, // also a reply with a result other than 0
    kRefused = 6,
};

class Failure : public std::runtime_error {
public:
    Failure(ExitCode code, const std::string &text, uint32_t result = 0)
        : runtime_error(text), code_(code), result_(result) {}
    ExitCode Code() const { return code_; }
    uint32_t Result() const { return result_; } // errno value that a method answered with; 0 where that isn't why

private:
    ExitCode code_;
    uint32_t result_;
};

// What holds for all commands.
struct Globals {
    std::string runDir;     // of the services' sockets; empty for the default one
    bool quiet = false;     // no progress
    std::string fleet = {}; // URL of its server; empty for that of the context in use
};

// kNone: text for people.
enum class JsonForm { kNone, kWire, kNamed };

// In all options: the run directory, empty for the default one.
struct CallOptions {
    std::filesystem::path runDir;
    std::string method;
    std::vector<std::string> request; // words NAME=VALUE; or one that is JSON, @FILE or -
    std::string raw;                  // file of a message that is sent as it is instead; empty for none
    std::optional<uint32_t> pid;      // whose agent
    std::chrono::milliseconds deadline = host::Limits().deadline;
    uint32_t repeat = 0; // times to call and to measure; 0: once, and print the reply
    bool oneway = false;
    bool quiet = false; // no progress
    JsonForm json = JsonForm::kNone;
};

struct StatsOptions {
    std::filesystem::path runDir;
    std::string service;         // empty for the daemon's
    std::optional<uint32_t> pid; // whose agent instead
    bool json = false;
};

struct DecodeOptions {
    std::string type;
    std::string file; // or - for standard input
    JsonForm json = JsonForm::kNone;
    bool explain = false;
};

struct EncodeOptions {
    std::string type;
    std::vector<std::string> record; // as a call's request
    std::string output;              // empty for standard output
    bool fixed = false;
};

enum class View { kMeaning, kWire };

// Of what is known here, and of what servers in the run directory have beyond it.
void List(const std::filesystem::path &runDir, const std::string &word, View view, bool json);
void Describe(const std::filesystem::path &runDir, const std::string &name, View view, bool json);
void Call(const CallOptions &options);
void ListServices(const std::filesystem::path &runDir, bool json);
void Stats(const StatsOptions &options);
void Decode(const DecodeOptions &options);
void Encode(const EncodeOptions &options);

// By name; what is unknown fails with the closest names.
const host::describe::Type &RequireType(const std::string &name);
const host::describe::Method &RequireMethod(const std::string &name);
void RequireService(const std::string &name);

std::string ReadAll(const std::string &file);

// A message in a file, as bytes or as hex digits.
std::vector<uint8_t> ReadMessage(const std::string &file);

// The record's JSON, with the names of the wire or of what is meant.
host::describe::Json JsonOf(const host::describe::Record &record, const host::meaning::Record *meaning, JsonForm form);

} // namespace ctl
