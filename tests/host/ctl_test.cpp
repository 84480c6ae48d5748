// tarnctl as its users run it: what it prints, and how it ends.
#include "host/answer/unit.h"

TARN_UNIT()

#include "types/tarnd.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <thread>

#include "host/ctl/meaning.h"
#include "host/describe/json.h"
#include "host/runtime/reply.h"
#include "host/runtime/server.h"

namespace {

using namespace host::describe;

std::string Slurp(const std::filesystem::path &file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

constexpr char kCommands[] = "list, describe, call, services, stats, top, decode, encode, completion";

class Ctl : public testing::Test {
protected:
    Ctl() {
        std::string pattern = (std::filesystem::temp_directory_path() / "ctl_test.XXXXXX").string();
        dir_ = mkdtemp(pattern.data());
    }
    ~Ctl() override { std::filesystem::remove_all(dir_); }

    // Runs tarnctl with arguments as a shell takes them. No service is there to be called.
    int Run(const std::string &arguments, const std::string &input = "") {
        std::ofstream(dir_ / "in", std::ios::binary) << input;
        const std::string command = "cd " + dir_.string() +
                                    " && echo $$ >pid && exec env TARN_RUN_DIR=" + dir_.string() + " " + TARNCTL + " " +
                                    "<in >out 2>err " + arguments;
        const int status = std::system(command.c_str());
        out_ = Slurp(dir_ / "out");
        error_ = Slurp(dir_ / "err");
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    // A failure prints one line, to standard error.
    void ExpectFailure(int code, const std::string &arguments, const std::string &message) {
        EXPECT_EQ(Run(arguments), code) << arguments;
        EXPECT_EQ(error_, "tarnctl: " + message + "\n") << arguments;
        EXPECT_EQ(out_, "") << arguments;
    }

    std::filesystem::path dir_;
    std::string out_, error_;
};

TEST_F(Ctl, HelpDocumentsTheExitCodes) {
    EXPECT_EQ(Run("--help"), 0);
    for (const char *line :
         {"  2  usage", "  3  connection", "  4  deadline", "  5  remote failure", "  6  the message"}) {
        EXPECT_NE(out_.find(line), std::string::npos) << line;
    }
    EXPECT_EQ(Run("call --help"), 0);
    EXPECT_EQ(out_.find("Exit codes"), std::string::npos) << "once is enough";
    EXPECT_EQ(out_.find("TEXT"), std::string::npos) << out_;
}

TEST_F(Ctl, ListsEveryMethodOnce) {
    ASSERT_EQ(Run("list --json"), 0);
    EXPECT_EQ(Json::parse(out_).size(), host::describe::Methods().size());
    ASSERT_EQ(Run("list TarnSysdiagTarndAgent"), 0);
    EXPECT_EQ(out_, "TarnSysdiagTarndAgent\n"
                    "  1  AgentRegInfo      AgentRegInfoInput  AgentRegInfoResult\n"
                    "  2  TarnAppSubscribe  AppSubscribeInput  Result\n");
}

TEST_F(Ctl, DescribesTypesAndMethods) {
    ASSERT_EQ(Run("describe Result"), 0);
    EXPECT_EQ(out_, "Result  hash 0x10D68351, record 4 bytes, fixed form 24 bytes\n"
                    "  slot  field     kind  at  fixed  count  meaning\n"
                    "     0  uiResult  u32    0      4         errno value\n");
    ASSERT_EQ(Run("describe DetectTarndServerOnline --json"), 0);
    const auto json = Json::parse(out_);
    EXPECT_TRUE(json["response"].is_null());
    EXPECT_EQ(json["types"][0]["type"], "None");
    EXPECT_EQ(json["types"][0]["fixedSize"], 16);
}

TEST_F(Ctl, KnowsOnlyMeaningsOfMembersThatThereAre) {
    for (const ctl::MemberMeaning &known : ctl::KnownMeanings()) {
        const Type *const type = FindType(known.type);
        ASSERT_NE(type, nullptr) << known.type;
        EXPECT_TRUE(std::any_of(type->slots.begin(), type->slots.end(),
                                [&](const Slot &slot) { return std::string_view(slot.name) == known.member; }))
            << known.type << "." << known.member;
    }
    ASSERT_EQ(Run("describe MultiCpuUsage"), 0);
    EXPECT_NE(out_.find("busy, permille\n"), std::string::npos) << out_;
}

TEST_F(Ctl, EncodesAndDecodes) {
    ASSERT_EQ(Run("encode Result '{\"uiResult\":7}'"), 0);
    const std::string message = out_;
    EXPECT_EQ(message, std::string("\x0A\0\0\0\x06\0\x08\0\x04\0\x06\0\0\0\x07\0\0\0", 18));
    EXPECT_EQ(Run("decode Result -", message), 0);
    EXPECT_EQ(out_, "uiResult  7\n");
    EXPECT_EQ(Run("decode Result - --json", "0a000000 060008000400\n06000000 07000000\n"), 0);
    EXPECT_EQ(Json::parse(out_), (Json{{"uiResult", 7}}));
}

TEST_F(Ctl, TakesRecordsFromFilesAndWritesToFiles) {
    std::ofstream(dir_ / "record.json") << R"({"uiResult": 8})";
    EXPECT_EQ(Run("encode Result @record.json --fixed -o message"), 0);
    EXPECT_EQ(out_, "");
    EXPECT_EQ(std::filesystem::file_size(dir_ / "message"), 24u);
    EXPECT_EQ(Run("decode Result message"), 0);
    EXPECT_EQ(out_, "uiResult  8\n");
    EXPECT_EQ(Run("encode Result - -o message", R"({"uiResult": 9})"), 0);
    EXPECT_EQ(Run("decode Result message"), 0);
    EXPECT_EQ(out_, "uiResult  9\n");
}

TEST_F(Ctl, PrintsVectorsOfFlatTablesAsTables) {
    ASSERT_EQ(
        Run(R"(encode OsProcessCpuRet '{"uiValue1":3,"pstThread":[{"acName":"main","uiValue1":12},{"acName":"w"}]}')"
            " -o message"),
        0);
    ASSERT_EQ(Run("decode OsProcessCpuRet message"), 0);
    EXPECT_EQ(out_, "pstThread  2 elements\n"
                    "  acName  uiValue1  uiValue2  ullValue3  acValue4  uiValue5  acValue6\n"
                    "  main          12         0          0  \"\"               0  \"\"\n"
                    "  w              0         0          0  \"\"               0  \"\"\n"
                    "uiValue1   3\n");
}

TEST_F(Ctl, ExplainsARefusal) {
    ASSERT_EQ(Run("decode Result - --explain", "c80000000600080004000600000007000000"), 6);
    EXPECT_NE(out_.find("the decoder logs: Tarn_sys_diag_Result_unpack (22) [VELTO]:Table offset(200) is out of "
                        "range(4 - 18)\n"),
              std::string::npos);
    EXPECT_EQ(error_, "tarnctl: Result: refused: byte 0, the message: the table's position is 200, expected 4 to 14\n");
    ASSERT_EQ(Run("decode Result - --explain --json", "c80000000600080004000600000007000000"), 6);
    EXPECT_EQ(Json::parse(out_)["refusal"]["value"], 200);
}

TEST_F(Ctl, RefusesInOneLineWithoutBeingAsked) {
    EXPECT_EQ(Run("decode Result -", "c80000000600080004000600000007000000"), 6);
    EXPECT_EQ(out_, "");
    EXPECT_EQ(std::count(error_.begin(), error_.end(), '\n'), 1);
}

TEST_F(Ctl, UsageErrorsSayWhatWasExpected) {
    ExpectFailure(2, "", std::string("found nothing, expected a command: ") + kCommands);
    ExpectFailure(2, "lst", std::string("found lst, expected a command: ") + kCommands);
    ExpectFailure(2, "list TarnSysdiagMastr", "TarnSysdiagMastr: no such service; did you mean TarnSysdiagMaster?");
    ExpectFailure(2, "list Nonsense",
                  "Nonsense: no such service; expected TarnSysdiagTarnd, TarnSysdiagTarndAgent, TarnSysdiagAgent, "
                  "TarnSysdiagMaster");
    ExpectFailure(2, "describe Xyzzy", "Xyzzy: no such method or type; tarnctl list shows all");
    ExpectFailure(2, "describe DstWek", "DstWek: no such method or type; did you mean DstWeek?");
    ExpectFailure(2, "decode Resul -", "Resul: no such type; did you mean Result?");
    ExpectFailure(2, "encode DiagResult '{}' --fixed", "DiagResult has no fixed form: it holds a string or a vector");
    ExpectFailure(2, "encode Result '{\"uiResult\":-1}'",
                  "Result: uiResult: found -1, expected a whole number from 0 to 4294967295");
    ExpectFailure(1, "decode Result nothing", "nothing: cannot read: No such file or directory");
    ExpectFailure(1, "encode Result '{}' -o /nowhere/file", "/nowhere/file: cannot write: No such file or directory");
    ExpectFailure(2, "--nonsense", std::string("found --nonsense, expected a command: ") + kCommands);
    ExpectFailure(2, "stats TarnSysdiagMastr", "TarnSysdiagMastr: no such service; did you mean TarnSysdiagMaster?");
    ExpectFailure(1, "encode Result @/", "/: cannot read: Is a directory");
    ExpectFailure(2, "describe \"$(printf '\\033[1m\\n\\302\\233')\"",
                  "?[1m ??: no such method or type; tarnctl list shows all");
    EXPECT_EQ(Run("decode Result"), 2);
    EXPECT_EQ(Run("list --nonsense"), 2);
    EXPECT_NE(error_.find("(tarnctl list --help says more)"), std::string::npos) << error_;
}

// What bash would offer for the last of some words.
constexpr char kComplete[] = R"bash(
complete() { :; }
. ./tarnctl.bash
COMP_WORDS=("$@")
COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
_tarnctl
printf '%s\n' "${COMPREPLY[@]}"
)bash";

TEST_F(Ctl, BashCompletesFromTheDescriptions) {
    ASSERT_EQ(Run("completion bash"), 0) << error_;
    std::ofstream(dir_ / "tarnctl.bash") << out_;
    std::ofstream(dir_ / "complete.sh") << kComplete;
    std::ofstream(dir_ / "agent-4711.sock");
    const auto offer = [&](const std::string &words) {
        const std::string command =
            "cd " + dir_.string() + " && TARN_RUN_DIR=. bash complete.sh tarnctl " + words + " >offer";
        EXPECT_EQ(std::system(command.c_str()), 0) << words;
        return Slurp(dir_ / "offer");
    };
    EXPECT_EQ(offer("de"), "describe\ndecode\n");
    EXPECT_EQ(offer("call PidIs"), "PidIsOnline\n");
    EXPECT_EQ(offer("call --pid 47"), "4711\n");
    EXPECT_EQ(offer("call --pid 4711 --json ClearMsgCtrlRuleT"), "ClearMsgCtrlRuleTarnd\n");
    EXPECT_EQ(offer("call PidIsOnline @complete"), "@complete.sh\n");
    EXPECT_EQ(offer("decode DstWe"), "DstWeek\n");
    EXPECT_EQ(offer("decode DstWeek comp"), "complete.sh\n");
    EXPECT_EQ(offer("list TarnSysdiagM"), "TarnSysdiagMaster\n");
    EXPECT_EQ(offer("call --one"), "--oneway\n");
    EXPECT_EQ(offer("completion z"), "zsh\n");
    EXPECT_EQ(offer("--run-dir . decode DstWe"), "DstWeek\n");
    EXPECT_EQ(offer("call --run-d"), "--run-dir\n");
    std::filesystem::create_directory(dir_ / "other");
    std::ofstream(dir_ / "other" / "agent-12.sock");
    EXPECT_EQ(offer("--run-dir oth"), "other\n");
    EXPECT_EQ(offer("--run-dir other call --pid ''"), "12\n");
    EXPECT_EQ(offer("nonsense "), "\n");
}

TEST_F(Ctl, ZshTakesItsCompletion) {
    ASSERT_EQ(Run("completion zsh"), 0) << error_;
    std::ofstream(dir_ / "_tarnctl") << out_;
    EXPECT_NE(out_.find("'call:Calls a method and prints its reply'"), std::string::npos);
    EXPECT_EQ(std::system(("zsh -n " + (dir_ / "_tarnctl").string()).c_str()), 0);
    ExpectFailure(2, "completion tcsh", "found tcsh, expected a shell: bash, zsh");
}

TEST_F(Ctl, CallChecksItsArgumentsFirst) {
    ExpectFailure(2, "call PidIsOnlin", "PidIsOnlin: no such method; did you mean PidIsOnline?");
    ExpectFailure(2, "call PidIsOnline '{\"uiPdi\":1}'",
                  "PidIsOnlineInput: uiPdi: PidIsOnlineInput has no such field; did you mean uiPid?");
    ExpectFailure(2, "call ClearMsgCtrlRule", "ClearMsgCtrlRule is a method of TarnSysdiagAgent: expected --pid PID");
    ExpectFailure(2, "call PidIsOnline --pid 1",
                  "--pid is for methods of TarnSysdiagAgent; PidIsOnline is one of TarnSysdiagTarnd");
    EXPECT_EQ(Run("call ClearMsgCtrlRule --pid 0"), 2);
    EXPECT_EQ(Run("call PidIsOnline '{}' --raw file"), 2);
    for (const char *deadline : {"0", "x", "5h", "-1s", "61m", "18446744073709551616ms", ""}) {
        EXPECT_EQ(Run(std::string("call PidIsOnline --deadline '") + deadline + "'"), 2) << deadline;
    }
}

TEST_F(Ctl, NoServicesIsNoFailure) {
    EXPECT_EQ(Run("services"), 0);
    EXPECT_EQ(out_, "no services in " + dir_.string() + "\n");
    EXPECT_EQ(Run("services --json"), 0);
    EXPECT_EQ(out_, "[]\n");
}

TEST_F(Ctl, CallWithoutAServiceIsAConnectionError) {
    ExpectFailure(3, "call PidIsOnline --deadline 500ms",
                  "TarnSysdiagTarnd.PidIsOnline at " + (dir_ / "TarnSysdiagTarnd.sock").string() +
                      ": not connected: No such file or directory (error 2)");
    EXPECT_EQ(Run("call ClearMsgCtrlRule --pid 1"), 3);
    EXPECT_EQ(std::count(error_.begin(), error_.end(), '\n'), 1) << error_;
}

// The wrappers of a service with a method for each way in which a call can end.
template <class Record>
using Codec = velto::Codec<Unit, Record>;
constexpr VeltoPackFn kPackResult = Codec<Tarn_sys_diag_Result>::kPack;

// Decodes the request and keeps the codec table with it, as the library's wrappers do; null when it is refused.
template <class Request>
std::unique_ptr<Request> Take(void *request, IdlServerCodecTable *codec, VeltoPackFn pack) {
    auto record = std::make_unique<Request>();
    codec->stCodec = {Codec<Request>::kUnpack, pack, nullptr, [](void *) {}, nullptr, nullptr};
    if (RPC_IdlReqVeltoMsgUnPack(request, record.get(), codec) == nullptr) {
        return nullptr;
    }
    *RPC_GetUsrFuncLib(record.get()) = *codec;
    return record;
}

uint32_t NeverAnswer(void *request, void *, IdlServerCodecTable *codec) {
    return Take<Tarn_sys_diag_SetTimezoneInput>(request, codec, kPackResult) ? 0 : 12;
}

std::atomic<uint32_t> onlineCalls;

uint32_t Online(void *request, void *replyCtx, IdlServerCodecTable *codec) {
    ++onlineCalls;
    const auto record =
        Take<Tarn_sys_diag_PidIsOnlineInput>(request, codec, Codec<Tarn_sys_diag_PidIsOnlineOuput>::kPack);
    Tarn_sys_diag_PidIsOnlineOuput reply{record ? record->uiPid : 0, 0};
    return record ? TarnHost_Reply(replyCtx, &reply) : 12;
}

uint32_t Fail(void *request, void *replyCtx, IdlServerCodecTable *codec) {
    const auto record = Take<Tarn_sys_diag_SetDstInput>(request, codec, kPackResult);
    Tarn_sys_diag_Result reply{22};
    TarnHost_Explain("begins-at is 1900 ‰,\nexpected 0 to 1000");
    return record ? TarnHost_Reply(replyCtx, &reply) : 12;
}

uint32_t Garble(const VeltoOutBuf *out, const void *) {
    if (out != nullptr) {
        memset(out->pucBuf, 0xFF, 8);
    }
    return 8;
}

uint32_t Garbled(void *request, void *replyCtx, IdlServerCodecTable *codec) {
    const auto record = Take<Tarn_sys_diag_None>(request, codec, Garble);
    Tarn_sys_diag_HugePagesOutput reply{};
    return record ? TarnHost_Reply(replyCtx, &reply) : 12;
}

template <uint32_t kStatus>
uint32_t Return(void *, void *, IdlServerCodecTable *) {
    return kStatus;
}

class CtlCall : public Ctl {
protected:
    CtlCall() : server_({.runDir = dir_, .stopBound = std::chrono::milliseconds(100)}) {
        spec_.uiInterfaceNum = static_cast<uint32_t>(std::size(entries_));
        spec_.pstInterfaces = entries_;
        for (IdlInterfaceEntry &entry : entries_) {
            const Method *const method = FindMethod(entry.acMethod);
            entry.uiRequestHash = method == nullptr ? 0 : method->request->hash;
        }
        server_.AddService(spec_);
        server_.Start();
    }

    IdlInterfaceEntry entries_[7] = {{0xFFFFFFFF, nullptr, 0, 0, ""},
                                     {0, Online, 0, 0, "PidIsOnline"},
                                     {0, Garbled, 0, 0, "GetHugePagesInfo"},
                                     {0, Return<38>, 0, 0, "GetProcStatByPid"},
                                     {0, Return<5>, 0, 0, "GetTaskInfo"},
                                     {0, NeverAnswer, 0, 0, "SetTimezone"},
                                     {0, Fail, 0, 0, "SetDst"}};
    IdlModuleSpec spec_{"TarnSysdiagTarnd", 0, 0, nullptr, nullptr, {}};
    host::Server server_;
};

TEST_F(CtlCall, PrintsTheReply) {
    EXPECT_EQ(Run("call PidIsOnline '{\"uiPid\": 4294967295}'"), 0) << error_;
    EXPECT_EQ(out_, "uiPid       4294967295\nucIsOnline  0\n");
    EXPECT_EQ(Run("call TarnSysdiagTarnd.PidIsOnline '{\"uiPid\": 7}' --json"), 0) << error_;
    EXPECT_EQ(Json::parse(out_), (Json{{"uiPid", 7}, {"ucIsOnline", 0}}));
    EXPECT_EQ(error_, "");
}

TEST_F(CtlCall, TakesTheRequestFromAFileOrStandardInput) {
    std::ofstream(dir_ / "request.json") << R"({"uiPid": 8})";
    EXPECT_EQ(Run("call PidIsOnline @request.json --json"), 0) << error_;
    EXPECT_EQ(Json::parse(out_)["uiPid"], 8);
    EXPECT_EQ(Run("call PidIsOnline - --json", R"({"uiPid": 9})"), 0) << error_;
    EXPECT_EQ(Json::parse(out_)["uiPid"], 9);
    ExpectFailure(1, "call PidIsOnline @nothing", "nothing: cannot read: No such file or directory");
}

TEST_F(CtlCall, RepeatsAndMeasures) {
    EXPECT_EQ(Run("call PidIsOnline '{\"uiPid\": 7}' --repeat 25"), 0) << error_;
    EXPECT_TRUE(out_.starts_with("PidIsOnline: 25 calls, 0 failed, ")) << out_;
    EXPECT_EQ(Run("call PidIsOnline --repeat 25 --json"), 0) << error_;
    const auto json = Json::parse(out_);
    EXPECT_EQ(json["calls"], 25);
    EXPECT_EQ(json["failures"], Json::array());
    EXPECT_GT(json["latencyMs"]["p50"], 0.0);
    EXPECT_LE(json["latencyMs"]["p50"], json["latencyMs"]["p99"]);
    EXPECT_LE(json["latencyMs"]["p99"], json["latencyMs"]["max"]);
    EXPECT_EQ(Run("call PidIsOnline --repeat 0"), 2);
}

TEST_F(CtlCall, CountsTheFailuresOfRepeatedCalls) {
    EXPECT_EQ(Run("call GetProcStatByPid --repeat 3"), 5);
    EXPECT_TRUE(out_.ends_with("3 x TarnSysdiagTarnd.GetProcStatByPid: not implemented (status 38)\n")) << out_;
    EXPECT_EQ(error_, "tarnctl: 3 of 3 calls failed\n");
    EXPECT_EQ(Run("call GetProcStatByPid --repeat 3 --json"), 5);
    EXPECT_EQ(Json::parse(out_)["failures"][0]["count"], 3);
}

TEST_F(CtlCall, SendsOneWay) {
    EXPECT_EQ(Run("call GetProcStatByPid --oneway"), 0) << error_; // its failure does not come back
    EXPECT_EQ(out_, "GetProcStatByPid: sent one way\n");
    EXPECT_EQ(Run("call GetProcStatByPid --oneway --json"), 0) << error_;
    EXPECT_EQ(out_, "null\n");
    EXPECT_EQ(Run("call GetProcStatByPid --oneway --repeat 5"), 0) << error_;
    EXPECT_TRUE(out_.starts_with("GetProcStatByPid: 5 calls, 0 failed, ")) << out_;
}

TEST_F(CtlCall, ShowsProcessesByName) {
    const std::string self = std::to_string(getpid());
    EXPECT_EQ(Run("call PidIsOnline '{\"uiPid\": " + self + "}'"), 0) << error_;
    EXPECT_EQ(out_, "uiPid       " + self + " (ctl_test)\nucIsOnline  0\n");
}

TEST_F(CtlCall, ShowsWhatTheServerCounted) {
    EXPECT_EQ(Run("call PidIsOnline --repeat 7"), 0) << error_;
    EXPECT_EQ(Run("call GetProcStatByPid"), 5);
    ASSERT_EQ(Run("stats --json"), 0) << error_;
    const auto methods = Json::parse(out_)["services"][0]["methods"];
    EXPECT_EQ(methods[0]["name"], "PidIsOnline");
    EXPECT_EQ(methods[0]["calls"], 7);
    EXPECT_EQ(methods[2]["errors"], 1);
    ASSERT_EQ(Run("stats TarnSysdiagTarnd"), 0) << error_;
    EXPECT_TRUE(out_.starts_with("process " + std::to_string(getpid()) + " (ctl_test), serving for ")) << out_;
    EXPECT_NE(out_.find("\n  PidIsOnline           7       0"), std::string::npos) << out_;
    EXPECT_NE(out_.find("\nlimits\n"), std::string::npos) << out_;
    EXPECT_EQ(Run("stats TarnSysdiagMaster"), 3);
    EXPECT_EQ(Run("stats TarnSysdiagTarnd --pid 1"), 2);
}

TEST_F(CtlCall, ListsTheServers) {
    std::ofstream(dir_ / "agent-4294967295.sock"); // nobody listens there
    std::ofstream(dir_ / "agent-x.sock");
    std::ofstream(dir_ / "notes");
    ASSERT_EQ(Run("services --json"), 0) << error_;
    const auto services = Json::parse(out_);
    ASSERT_EQ(services.size(), 2u) << out_;
    EXPECT_EQ(services[0]["agentOf"], 4294967295);
    EXPECT_TRUE(services[0].contains("error"));
    EXPECT_EQ(services[1]["service"], "TarnSysdiagTarnd");
    EXPECT_EQ(services[1]["health"]["pid"], getpid());
    ASSERT_EQ(Run("services"), 0) << error_;
    EXPECT_NE(out_.find("TarnSysdiagTarnd  " + std::to_string(getpid()) + " (ctl_test)"), std::string::npos) << out_;
}

TEST_F(CtlCall, LooksInTheDirectoryThatTheOptionNames) {
    const std::string option = "--run-dir " + dir_.string();
    dir_ = dir_ / "nowhere"; // of $TARN_RUN_DIR
    std::filesystem::create_directory(dir_);
    EXPECT_EQ(Run("call PidIsOnline"), 3);
    EXPECT_EQ(Run(option + " call PidIsOnline"), 0) << error_;
    EXPECT_EQ(Run("call PidIsOnline " + option), 0) << error_;
    EXPECT_EQ(Run("stats " + option), 0) << error_;
    EXPECT_EQ(Run("services " + option), 0) << error_;
    EXPECT_NE(out_.find("TarnSysdiagTarnd"), std::string::npos) << out_;
    EXPECT_EQ(Run("services --run-dir ''"), 2);
    dir_ = dir_.parent_path();
}

// Its connection would become standard output, and get the reply as text.
TEST_F(CtlCall, WithoutStandardStreamsWritesNowhere) {
    EXPECT_EQ(Run("call PidIsOnline >&- <&-"), 1);
    EXPECT_EQ(error_, "tarnctl: cannot write to standard output\n");
    EXPECT_EQ(Run("stats --json"), 0);
    const auto status = Json::parse(out_);
    for (const auto &reason : status["refused"]) {
        EXPECT_EQ(reason["value"], 0) << reason;
    }
}

TEST_F(CtlCall, TellsAResultThatIsAFailureAndWhy) {
    const std::string told =
        "TarnSysdiagTarnd.SetDst: uiResult is 22 (Invalid argument): begins-at is 1900 ‰,?expected "
        "0 to 1000";
    EXPECT_EQ(Run("call SetDst"), 5);
    EXPECT_EQ(out_, "uiResult  22 (Invalid argument)\n");
    EXPECT_EQ(error_, "tarnctl: " + told + "\n");
    EXPECT_EQ(Run("call SetDst --json"), 5);
    EXPECT_EQ(Json::parse(out_), (Json{{"uiResult", 22}}));
    EXPECT_EQ(error_, "tarnctl: " + told + "\n");
    EXPECT_EQ(Run("call SetDst --repeat 2"), 5);
    EXPECT_NE(out_.find("2 x " + told + "\n"), std::string::npos) << out_;
}

TEST_F(CtlCall, AnInterruptEndsASeriesThatIsShownAllTheSame) {
    onlineCalls = 0;
    std::thread user([this] {
        while (onlineCalls == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        kill(std::stoi(Slurp(dir_ / "pid")), SIGINT);
    });
    EXPECT_EQ(Run("call PidIsOnline --repeat 1000000000"), 0);
    user.join();
    EXPECT_NE(out_.find(" calls, 0 failed, "), std::string::npos) << out_;
}

TEST_F(CtlCall, TellsRemoteFailures) {
    ExpectFailure(5, "call GetProcStatByPid", "TarnSysdiagTarnd.GetProcStatByPid: not implemented (status 38)");
    EXPECT_EQ(Run("call GetTaskInfo"), 5);
    EXPECT_NE(error_.find("status 5"), std::string::npos) << error_;
}

TEST_F(CtlCall, TellsTheDeadline) {
    EXPECT_EQ(Run("call SetTimezone --deadline 200ms"), 4);
    EXPECT_NE(error_.find("error 110"), std::string::npos) << error_;
}

TEST_F(CtlCall, TellsARefusedReply) {
    ExpectFailure(
        6, "call GetHugePagesInfo",
        "GetHugePagesInfo: the reply is refused as HugePagesOutput: byte 0, the message: the table's position is "
        "4294967295, expected 4");
}

} // namespace
