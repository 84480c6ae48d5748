// The platform that the library finds in a test's process: the RPC runtime, the OS layer, the bounds-checked functions
// and the daemon. It does what a test's script says and records what it is asked. Each thread has a platform of its
// own, so that threads share nothing but the library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tarn_sysdiag/platform/rpc.h"

constexpr uint32_t kMoraModuleId = 4711;
constexpr size_t kNever = std::numeric_limits<size_t>::max();

// A call that the library made of the platform. Pointers are shown by the names that they have when it is shown.
struct Argument {
    Argument(std::string shown) : text(std::move(shown)) {}
    Argument(const char *shown) : text(shown) {}
    Argument(uint64_t number) : text(std::to_string(number)) {}
    Argument(const void *address) : isPointer(true), pointer(address) {}

    std::string text;
    bool isPointer = false;
    const void *pointer = nullptr;
};

struct Call {
    std::string function;
    std::vector<Argument> arguments;
};

struct LogRecord {
    std::string function;
    uint32_t code;
    std::string text;
};

// What the platform is told to do.
struct Script {
    bool knowsService = true;
    size_t failingCreate = kNever; // which RPC_IdlMsgCreate returns null, from 0
    bool failsNew = false;
    bool failsKeeping = false;    // memcpy_s into the runtime's codec table
    bool decodes = true;          // else RPC_IdlReqVeltoMsgUnPack refuses without asking the decoder
    bool copiesRecord = true;     // it hands out a copy of the decoded record
    std::vector<uint8_t> message; // what a request carries
    size_t recordSize = 0;        // native size of what it decodes to
    IdlCallResult callResult = {};
    uint32_t asyncResult = 0;
    uint32_t onewayResult = 0;
    uint32_t handlerResult = 0;
    std::function<void(const void *record)> handler;
};

class Platform {
public:
    // This thread's.
    static Platform &Get();

    // Forgets everything and starts a new script.
    Script &Start();

    void Name(const void *pointer, std::string name) { names_[pointer] = std::move(name); }
    // One line a call.
    std::vector<std::string> Calls() const;
    size_t CountCalls(const std::string &function) const;
    size_t LiveBlocks() const { return live_.size(); }

    Script script;
    std::vector<Call> calls;
    std::vector<LogRecord> log;
    std::vector<std::string> misuse; // what the library may never do

    // What the last call of the runtime was given.
    std::string service, method;
    IdlCodecTable codec = {};
    IdlAsyncCtx context = {};
    std::vector<uint8_t> request, response; // contents of messages

    IdlServerCodecTable kept = {}; // the runtime's copy of a wrapper's codec table
    size_t copied = 0;             // bytes copied into it

    // The platform's side.
    void Record(std::string function, std::vector<Argument> arguments);
    void RecordMethod(const IdlMethodName *name, const IdlCodecTable *table);
    void *NewMessage(uint32_t size);
    void DeleteMessage(const void *message);
    std::vector<uint8_t> ContentOf(const void *message) const;
    void *Unpack(void *buffer, const IdlServerCodecTable *table);
    void *Alloc(uint32_t size, const char *tag);
    void Free(void *block, const char *tag);
    size_t created = 0;

private:
    std::string Show(const Argument &argument) const;

    struct Message {
        std::unique_ptr<uint8_t[]> bytes; // of exactly its size, so that the address sanitizer sees what goes beyond
        size_t size;
    };
    std::map<const void *, std::string> names_;
    std::map<const void *, Message> messages_;
    std::map<void *, std::string> live_; // blocks and the tags they were asked for with
    bool quiet_ = false;                 // what a decoder asks for is not shown among the calls
};

// How often the library has asked, on any thread, whose memory to use.
unsigned UseFlagQueries();
