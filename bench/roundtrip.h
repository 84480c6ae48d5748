// A request to another process and its answer: what each system does for one caller, and its server.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace bench {

// One caller's connection; used by one thread. Throws std::runtime_error.
class Caller {
public:
    virtual ~Caller() = default;
    // Asks for a reply, takes it apart, and returns how many bytes of payload it has.
    virtual size_t Call() = 0;
};

// A server, in a process of its own, answers every request with `size` bytes, text that has no NUL.
class System {
public:
    virtual ~System() = default;
    virtual const char *Name() const = 0;
    // Serves below `directory` until the process is killed.
    virtual void Serve(const std::string &directory, size_t size) const = 0;
    virtual std::unique_ptr<Caller> Connect(const std::string &directory, int serverPid) const = 0;
};

// Those that a program compares.
std::vector<const System *> Systems();

const System &RawSystem();
const System &RuntimeSystem();
const System &SdBusSystem();
const System &GrpcSystem();

} // namespace bench
