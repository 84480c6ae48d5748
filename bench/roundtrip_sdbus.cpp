// sd-bus between two processes, without a bus: each connection has a thread of the server.
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <stdexcept>
#include <thread>
#include <vector>

#include "bench/roundtrip.h"

namespace bench {
namespace {

constexpr const char *kPath = "/bench";
constexpr const char *kInterface = "bench.RoundTrip";

std::vector<char> answer;

int Check(int result, const char *what) {
    if (result < 0) {
        throw std::runtime_error(std::string("sd-bus: ") + what + ": " + std::to_string(result));
    }
    return result;
}

int OnGet(sd_bus_message *request, void *, sd_bus_error *) {
    sd_bus_message *reply = nullptr;
    int result = sd_bus_message_new_method_return(request, &reply);
    if (result >= 0) {
        result = sd_bus_message_append_array(reply, 'y', answer.data(), answer.size());
    }
    if (result >= 0) {
        result = sd_bus_send(nullptr, reply, nullptr);
    }
    sd_bus_message_unref(reply);
    return result < 0 ? result : 1;
}

const sd_bus_vtable kTable[] = {SD_BUS_VTABLE_START(0),
                                SD_BUS_METHOD("Get", "", "ay", OnGet, SD_BUS_VTABLE_UNPRIVILEGED), SD_BUS_VTABLE_END};

void ServeConnection(int fd) {
    sd_bus *bus = nullptr;
    sd_id128_t id;
    Check(sd_bus_new(&bus), "new");
    Check(sd_bus_set_fd(bus, fd, fd), "set_fd");
    Check(sd_id128_randomize(&id), "id");
    Check(sd_bus_set_server(bus, 1, id), "set_server");
    Check(sd_bus_start(bus), "start");
    Check(sd_bus_add_object_vtable(bus, nullptr, kPath, kInterface, kTable, nullptr), "vtable");
    while (true) {
        const int result = sd_bus_process(bus, nullptr);
        if (result < 0 || (result == 0 && sd_bus_wait(bus, UINT64_MAX) < 0)) {
            break;
        }
    }
    sd_bus_unref(bus);
}

class SdBusCaller final : public Caller {
public:
    explicit SdBusCaller(const std::string &directory) {
        Check(sd_bus_new(&bus_), "new");
        Check(sd_bus_set_address(bus_, ("unix:path=" + directory + "/sdbus").c_str()), "set_address");
        Check(sd_bus_start(bus_), "start");
    }
    ~SdBusCaller() override { sd_bus_flush_close_unref(bus_); }

    size_t Call() override {
        sd_bus_message *reply = nullptr;
        Check(sd_bus_call_method(bus_, nullptr, kPath, kInterface, "Get", nullptr, &reply, ""), "call");
        const void *bytes = nullptr;
        size_t size = 0;
        Check(sd_bus_message_read_array(reply, 'y', &bytes, &size), "read");
        sd_bus_message_unref(reply);
        return size;
    }

private:
    sd_bus *bus_ = nullptr;
};

class SdBus final : public System {
public:
    const char *Name() const override { return "sd-bus"; }

    void Serve(const std::string &directory, size_t size) const override {
        answer.assign(size, 'x');
        const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        (directory + "/sdbus").copy(address.sun_path, sizeof address.sun_path - 1);
        if (bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
            listen(listener, 16) != 0) {
            throw std::runtime_error("sd-bus: can't listen");
        }
        while (true) {
            std::thread(ServeConnection, accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)).detach();
        }
    }

    std::unique_ptr<Caller> Connect(const std::string &directory, int) const override {
        return std::make_unique<SdBusCaller>(directory);
    }
};

} // namespace

const System &SdBusSystem() {
    static const SdBus system;
    return system;
}

} // namespace bench
