// Requests that are well-formed but make no sense, to every method of the daemon, an agent and the master: each is
// answered, and a refusal says why.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/common.h"

#include "host/describe/json.h"
#include "host/osal/hex.h"
#include "tests/host/daemon_kit.h"

namespace {

using namespace std::chrono_literals;
using host::describe::Json;
using host::describe::Kind;
using host::describe::Method;
using host::describe::Slot;
using host::describe::Type;

// What stands in every member of a request.
struct Filling {
    const char *name;
    std::function<uint64_t(uint32_t width)> scalar;
    std::string text; // repeated until it fills an array
    size_t length;    // of what is not an array
};

Json Filled(const Type &type, const Filling &filling);

Json Bytes(const Filling &filling, size_t length) {
    std::string bytes;
    while (!filling.text.empty() && bytes.size() < length) {
        bytes += filling.text;
    }
    bytes.resize(std::min(bytes.size(), length));
    return {{"hex", host::Hex({reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()})}};
}

Json Filled(const Slot &slot, const Filling &filling) {
    switch (slot.kind) {
    case Kind::kScalar:
        return filling.scalar(slot.width);
    case Kind::kBytes:
        return filling.text.empty() ? Json("") : Bytes(filling, slot.length);
    case Kind::kString:
    case Kind::kByteVector:
        return Bytes(filling, filling.length);
    case Kind::kTable:
        return Filled(*slot.table, filling);
    default: // an array of numbers: no request has another
        return Json(std::vector<uint64_t>(slot.length, filling.scalar(slot.width)));
    }
}

Json Filled(const Type &type, const Filling &filling) {
    Json json = Json::object();
    for (const Slot &slot : type.slots) {
        json[slot.name] = Filled(slot, filling);
    }
    return json;
}

// More than any answer takes on a machine that is busy with something else.
constexpr auto kPatience = 2min;

class RequestsTest : public kit::DaemonTest<void> {
protected:
    // Measurement is asked for: of all that the machine runs, however much that is.
    std::vector<std::string> Options() const override {
        return {"--state-dir", dir_.Path() / "state", "--measure-rate", "0"};
    }
    void SetUp() override {
        kit::DaemonTest<void>::SetUp();
        std::ofstream(dir_.Path() / "master.conf") << "[memory-overload system]\nover = 999\n";
        master_ = std::make_unique<kit::Process>(
            dir_.Path(), std::vector<std::string>{TARN_MASTER, dir_.Path() / "master.conf", "--run-dir", dir_.Path()});
        agent_ = std::make_unique<kit::Process>(
            dir_.Path(), std::vector<std::string>{TARN_AGENT, "--name", "asked", "--run-dir", dir_.Path()});
        ASSERT_TRUE(kit::Eventually([&] {
            return kit::TakesCalls(client_, "TarnSysdiagMaster", 0) &&
                   kit::TakesCalls(client_, "TarnSysdiagAgent", agent_->Pid());
        }));
    }
    void TearDown() override {
        EXPECT_EQ(agent_->Stop(), 0) << agent_->Err();
        EXPECT_EQ(master_->Stop(), 0) << master_->Err();
        kit::DaemonTest<void>::TearDown();
    }

    void Ask(const Method &method, const std::vector<uint8_t> &request) {
        const uint32_t pid = std::string_view(method.service) == "TarnSysdiagAgent" ? agent_->Pid() : 0;
        if (method.response == nullptr) {
            EXPECT_EQ(
                client_.Oneway({method.service, pid, method.name, method.request->hash, request, kPatience}).errCode,
                0);
            return;
        }
        const host::CallOutcome outcome =
            client_.Call(method.service, pid, method.name, method.request->hash, request, kPatience);
        EXPECT_EQ(outcome.errCode, 0) << outcome.text;
        ExpectExpected(outcome.status);
        if (outcome.status != 0) {
            EXPECT_NE(outcome.text.find("): "), std::string::npos) << "no reason: " << outcome.text;
        } else if (outcome.errCode == 0) {
            ExpectResult(*method.response, outcome);
        }
    }
    // Those of what nobody thought of, or did.
    static void ExpectExpected(uint32_t status) {
        EXPECT_NE(status, ENOSYS);
        EXPECT_NE(status, EIO);
        EXPECT_LT(status, 134) << "no errno value";
    }
    static void ExpectResult(const Type &type, const host::CallOutcome &outcome) {
        const auto record = host::describe::Decode(type, outcome.bytes);
        ASSERT_TRUE(record);
        const Json json = host::describe::ToJson(*record);
        for (const char *const result : {"uiResult", "uiTaskResult"}) {
            if (json.contains(result)) {
                const auto failure = json[result].get<uint32_t>();
                ExpectExpected(failure);
                EXPECT_EQ(failure != 0, !outcome.explanation.empty())
                    << type.name << ": " << failure << ": " << outcome.explanation;
            }
        }
    }

    std::unique_ptr<kit::Process> master_;
    std::unique_ptr<kit::Process> agent_;
};

TEST_F(RequestsTest, AreAnsweredWhateverIsInThem) {
    const auto own = static_cast<uint32_t>(getpid());
    const std::vector<Filling> fillings{
        {"all bits", host::describe::MaxScalar, "\xFF", 100},
        {"full texts", host::describe::MaxScalar, "x", 65536},
        {"sign bits", [](uint32_t width) { return uint64_t{1} << (8 * width - 1); }, "../", 30},
        {"ones", [](uint32_t) { return 1; }, "", 0},
        {"twos", [](uint32_t) { return 2; }, "[!*", 3},
        {"the test's process", [=](uint32_t width) { return own & host::describe::MaxScalar(width); }, "%n%s{}", 50},
        {"the agent's process", [this](uint32_t width) { return agent_->Pid() & host::describe::MaxScalar(width); },
         "threads\n", 8},
    };
    size_t asked = 0;
    for (const Filling &filling : fillings) {
        for (const Method &method : host::describe::Methods()) {
            SCOPED_TRACE(std::string(method.name) + ", " + filling.name);
            Ask(method,
                host::describe::Encode(host::describe::FromJson(*method.request, Filled(*method.request, filling))));
            ++asked;
        }
    }
    EXPECT_GT(asked, 0);
}

} // namespace
