// gRPC's synchronous server and blocking stub over a Unix-domain socket.
#include <grpcpp/grpcpp.h>

#include <stdexcept>

#include "bench/roundtrip.h"
#include "roundtrip.grpc.pb.h"

namespace bench {
namespace {

std::string AddressOf(const std::string &directory) {
    return "unix:" + directory + "/grpc";
}

class Service final : public roundtrip::RoundTrip::Service {
public:
    explicit Service(size_t size) : text_(size, 'x') {}
    grpc::Status Get(grpc::ServerContext *, const roundtrip::Ask *, roundtrip::Answer *answer) override {
        answer->set_text(text_);
        return grpc::Status::OK;
    }

private:
    const std::string text_;
};

class GrpcCaller final : public Caller {
public:
    explicit GrpcCaller(const std::string &directory) {
        grpc::ChannelArguments own; // else all callers share one connection
        own.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
        stub_ = roundtrip::RoundTrip::NewStub(
            grpc::CreateCustomChannel(AddressOf(directory), grpc::InsecureChannelCredentials(), own));
    }

    size_t Call() override {
        grpc::ClientContext context;
        roundtrip::Answer answer;
        const grpc::Status status = stub_->Get(&context, {}, &answer);
        if (!status.ok()) {
            throw std::runtime_error("grpc: " + status.error_message());
        }
        return answer.text().size();
    }

private:
    std::unique_ptr<roundtrip::RoundTrip::Stub> stub_;
};

class Grpc final : public System {
public:
    const char *Name() const override { return "grpc"; }

    void Serve(const std::string &directory, size_t size) const override {
        Service service(size);
        grpc::ServerBuilder builder;
        builder.AddListeningPort(AddressOf(directory), grpc::InsecureServerCredentials());
        builder.RegisterService(&service);
        const auto server = builder.BuildAndStart();
        if (server == nullptr) {
            throw std::runtime_error("grpc: can't serve");
        }
        server->Wait();
    }

    std::unique_ptr<Caller> Connect(const std::string &directory, int) const override {
        return std::make_unique<GrpcCaller>(directory);
    }
};

} // namespace

const System &GrpcSystem() {
    static const Grpc system;
    return system;
}

} // namespace bench
