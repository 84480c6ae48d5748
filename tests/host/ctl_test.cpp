// tarnctl as its users run it: what it prints, and how it ends.
#include "host/answer/unit.h"

TARN_UNIT()

#include "tarn_sysdiag/types/tarnd.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <thread>

#include "host/describe/stated.h"
#include "host/runtime/server.h"
#include "tarn_sysdiag/host/reply.h"

namespace {

using namespace host::describe;

std::string Slurp(const std::filesystem::path &file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

constexpr char kCommands[] =
    "ps, top, stack, mem, leaks, crashes, overloads, events, health, watch, collect, exec, settings, "
    "measure, rules, time, metrics, list, describe, call, services, stats, capture, dissector, replay, devices, fleet, "
    "context, decode, encode, completion, help";

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
    EXPECT_EQ(out_,
              "TarnSysdiagTarndAgent: The daemon's service for agents, with which they register and subscribe.\n"
              "  agents\n"
              "    AgentRegInfo      Tells the daemon that an agent runs in a process, or that it leaves.\n"
              "    TarnAppSubscribe  Subscribes a process to events of the machine's resources, instead of what it "
              "subscribed to before.\n");
    ASSERT_EQ(Run("list TarnSysdiagTarndAgent --wire"), 0);
    EXPECT_EQ(out_, "TarnSysdiagTarndAgent\n"
                    "  1  AgentRegInfo      AgentRegInfoInput  AgentRegInfoResult\n"
                    "  2  TarnAppSubscribe  AppSubscribeInput  Result\n");
}

TEST_F(Ctl, ListsWhatHasAWord) {
    const auto listed = [&](const std::string &word) {
        EXPECT_EQ(Run("list --json " + word), 0) << error_;
        std::vector<std::string> names;
        for (const Json &method : Json::parse(out_)) {
            names.push_back(method["method"]);
        }
        return names;
    };
    EXPECT_EQ(listed("tasksw"), std::vector<std::string>{"SetTaskSwitch"}) << "in its name";
    EXPECT_EQ(listed("'resource of the machine'"), std::vector<std::string>{"TarnUpdateResourceInfo"})
        << "in its sentence";
    EXPECT_EQ(listed("stDstWeek"), (std::vector<std::string>{"SetDst", "GetDst"})) << "in a record within its request";
    EXPECT_EQ(listed("TarnSysdiagTarndAgent").size(), 2u);
}

TEST_F(Ctl, DescribesWhatAMethodMeans) {
    ASSERT_EQ(Run("describe SysOvLoadCpuThresholdSet"), 0);
    const std::string described = out_;
    EXPECT_EQ(described, R"(TarnSysdiagTarnd.SysOvLoadCpuThresholdSet, settings
  Sets from which share of busy time on the system is overloaded. Until it is set no overload is
  detected; it outlives a restart.

example
  tarnctl call SysOvLoadCpuThresholdSet begins-at=90% ends-below=80% must-last=10s

request: SysOvLoadCpuThreshold
  begins-at (uiValue1): permille, 0 to 1000, 0: detect none
      The busy share of all CPUs with which an overload begins.
  ends-below (uiValue2): permille, 0: as begins-at, at most begins-at
      The share below which it ends.
  must-last (uiValue3): s, 0 to 3600, 0: counts at once
      How long the share must last to count as an overload.

reply: OperResult
  result (uiResult): errno value
      0, or why it was not done.
)");
    for (const char *arguments : {"call --help SysOvLoadCpuThresholdSet", "call SysOvLoadCpuThresholdSet --help"}) {
        EXPECT_EQ(Run(arguments), 0);
        EXPECT_EQ(out_, described) << arguments;
    }
    EXPECT_EQ(Run("call --help NoMethod"), 2);
    ASSERT_EQ(Run("describe SetMemDmgScan"), 0);
    EXPECT_NE(out_.find("\n        once (2): All blocks are scanned now, once.\n"), std::string::npos) << out_;
    EXPECT_NE(out_.find("tarnctl call SetMemDmgScan --pid 4711 scan=once\n"), std::string::npos) << out_;
    ASSERT_EQ(Run("describe SetDst"), 0);
    EXPECT_NE(out_.find("\n  rule (stDst): record Dst\n"), std::string::npos) << out_;
    EXPECT_NE(out_.find("\n  offset (uiDstOffset): minutes, 1 to 180, while on is on\n"), std::string::npos) << out_;
}

TEST_F(Ctl, DescribesTypesAndHowTheyTravel) {
    ASSERT_EQ(Run("describe Result"), 0);
    EXPECT_EQ(out_, "Result\n"
                    "  result (uiResult): errno value\n"
                    "      0, or why it was not done.\n");
    ASSERT_EQ(Run("describe Result --wire"), 0);
    EXPECT_EQ(out_, "Result  hash 0x10D68351, record 4 bytes, fixed form 24 bytes\n"
                    "  slot  member    kind  at  fixed  count\n"
                    "     0  uiResult  u32    0      4\n");
    ASSERT_EQ(Run("describe DetectTarndServerOnline --json"), 0);
    auto json = Json::parse(out_);
    EXPECT_TRUE(json["response"].is_null());
    EXPECT_EQ(json["group"], "reading");
    EXPECT_EQ(json["types"][0]["type"], "None");
    EXPECT_EQ(json["types"][0]["fixedSize"], 16);
    ASSERT_EQ(Run("describe SetMemDmgScan --json"), 0);
    json = Json::parse(out_)["types"][0]["fields"].back();
    EXPECT_EQ(json["meaning"]["name"], "scan");
    EXPECT_EQ(json["meaning"]["choices"][2]["name"], "once");
}

// Also those that no method has.
TEST_F(Ctl, DescribesEveryType) {
    for (const Type &type : Types()) {
        EXPECT_EQ(Run(std::string("describe ") + type.name), 0) << error_;
        EXPECT_TRUE(out_.starts_with(type.name)) << out_;
    }
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

TEST_F(Ctl, EncodesWhatIsStatedInWords) {
    ASSERT_EQ(Run("encode SysOvLoadCpuThreshold begins-at=190% uiValue3=10s -o message"), 0) << error_;
    ASSERT_EQ(Run("decode SysOvLoadCpuThreshold message --json"), 0) << "also what no method accepts";
    EXPECT_EQ(Json::parse(out_), (Json{{"uiValue1", 1900}, {"uiValue2", 0}, {"uiValue3", 10}}));
    EXPECT_EQ(Run("encode SysOvLoadCpuThreshold begin-at=90%"), 2);
    EXPECT_NE(error_.find("begins-at"), std::string::npos) << error_;
    const auto unnamed = std::ranges::find_if(Types(), [](const Type &type) { return MeaningOf(type) == nullptr; });
    if (unnamed != Types().end()) {
        const std::string name = unnamed->name;
        ExpectFailure(2, "encode " + name + " member=1",
                      name + ": no method has it, so its members have no names: expected JSON, @FILE or -");
    }
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
    ExpectFailure(2, "lst", "lst: no such command; did you mean list?");
    const std::string nowhere = ": no service, and in no method's name, sentence or members; ";
    ExpectFailure(2, "list TarnSysdiagMastr", "TarnSysdiagMastr" + nowhere + "did you mean TarnSysdiagMaster?");
    ExpectFailure(2, "list Nonsense", "Nonsense" + nowhere + "tarnctl list shows all");
    ExpectFailure(2, "describe Xyzzy", "Xyzzy: no such method or type; tarnctl list shows all");
    ExpectFailure(2, "describe DstWek", "DstWek: no such method or type; did you mean DstWeek?");
    ExpectFailure(2, "decode Resul -", "Resul: no such type; did you mean Result?");
    ExpectFailure(2, "encode DiagResult '{}' --fixed", "DiagResult has no fixed form: it holds a string or a vector");
    ExpectFailure(2, "encode Result '{\"uiResult\":-1}'",
                  "Result: uiResult: found -1, expected a whole number from 0 to 4294967295");
    ExpectFailure(1, "decode Result nothing", "nothing: cannot read: No such file or directory");
    ExpectFailure(1, "encode Result '{}' -o /nowhere/file", "/nowhere/file: cannot write: No such file or directory");
    ExpectFailure(2, "--run-dri", "--run-dri: no such option; did you mean --run-dir? (tarnctl --help says more)");
    ExpectFailure(2, "ps --sotr cpu", "--sotr: no such option; did you mean --sort? (tarnctl ps --help says more)");
    ExpectFailure(2, "top -d", "-d: 1 required TIME missing (tarnctl top --help says more)");
    ExpectFailure(2, "stats TarnSysdiagMastr", "TarnSysdiagMastr: no such service; did you mean TarnSysdiagMaster?");
    ExpectFailure(1, "encode Result @/", "/: cannot read: Is a directory");
    ExpectFailure(2, "describe \"$(printf '\\033[1m\\n\\302\\233')\"",
                  "?[1m ??: no such method or type; tarnctl list shows all");
    EXPECT_EQ(Run("decode Result"), 2);
    EXPECT_EQ(Run("list --nonsense"), 2);
    EXPECT_NE(error_.find("(tarnctl list --help says more)"), std::string::npos) << error_;
}

TEST_F(Ctl, CallChecksItsArgumentsFirst) {
    ExpectFailure(2, "call PidIsOnlin", "PidIsOnlin: no such method; did you mean PidIsOnline?");
    ExpectFailure(2, "call PidIsOnline '{\"uiPdi\":1}'",
                  "PidIsOnline: uiPdi: PidIsOnlineInput has no such member; did you mean uiPid?");
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
    ExpectFailure(3, "call PidIsOnline process=1 --deadline 500ms",
                  "TarnSysdiagTarnd.PidIsOnline at " + (dir_ / "TarnSysdiagTarnd.sock").string() +
                      ": not connected: No such file or directory (error 2); does it run? tarnctl services lists those "
                      "that do");
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

std::atomic<uint32_t> localHour;

uint32_t SetLocalTime(void *request, void *replyCtx, IdlServerCodecTable *codec) {
    const auto record = Take<Tarn_sys_diag_SetLocalTimeInput>(request, codec, kPackResult);
    localHour = record ? record->stTime.ucHour : 0;
    Tarn_sys_diag_Result reply{0};
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
    CtlCall()
        : server_({.runDir = dir_, .stopBound = std::chrono::milliseconds(100), .timezone = [] { return "<+05>-5"; }}) {
        spec_.uiInterfaceNum = static_cast<uint32_t>(std::size(entries_));
        spec_.pstInterfaces = entries_;
        for (IdlInterfaceEntry &entry : entries_) {
            const Method *const method = FindMethod(entry.acMethod);
            entry.uiRequestHash = method == nullptr ? 0 : method->request->hash;
        }
        server_.AddService(spec_);
        server_.Start();
    }

    IdlInterfaceEntry entries_[8] = {{0xFFFFFFFF, nullptr, 0, 0, ""},
                                     {0, Online, 0, 0, "PidIsOnline"},
                                     {0, Garbled, 0, 0, "GetHugePagesInfo"},
                                     {0, Return<38>, 0, 0, "GetProcStatByPid"},
                                     {0, Return<5>, 0, 0, "GetTaskInfo"},
                                     {0, NeverAnswer, 0, 0, "SetTimezone"},
                                     {0, Fail, 0, 0, "SetDst"},
                                     {0, SetLocalTime, 0, 0, "SetLocalTime"}};
    IdlModuleSpec spec_{"TarnSysdiagTarnd", 0, 0, nullptr, nullptr, {}};
    host::Server server_;
};

TEST_F(CtlCall, PrintsTheReply) {
    EXPECT_EQ(Run("call PidIsOnline process=4294967295"), 0) << error_;
    EXPECT_EQ(out_, "process  4294967295\nonline   off\n");
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

TEST_F(CtlCall, PrintsTheReplyInNamesForPrograms) {
    EXPECT_EQ(Run("call PidIsOnline process=7 --json=named"), 0) << error_;
    EXPECT_EQ(Json::parse(out_), (Json{{"process", 7}, {"online", false}}));
    EXPECT_EQ(Run("call PidIsOnline '{\"process\": 7}' --json=wire"), 0) << error_;
    EXPECT_EQ(Json::parse(out_), (Json{{"uiPid", 7}, {"ucIsOnline", 0}}));
    EXPECT_EQ(Run("call SetDst rule.on=off --json=named"), 5);
    EXPECT_EQ(Json::parse(out_), (Json{{"result", "EINVAL"}}));
    EXPECT_EQ(Run("call PidIsOnline process=7 --json=text"), 2);
    EXPECT_EQ(Run("call PidIsOnline process=7 --json named"), 2) << "that is a word of the request";
}

TEST_F(CtlCall, TakesTimesOfTheServersZone) {
    EXPECT_EQ(Run("call SetLocalTime time=2026-11-21T12:00:00Z"), 0) << error_;
    EXPECT_EQ(localHour, 17u);
    EXPECT_EQ(Run("call SetLocalTime time=2026-11-21T12:00:00"), 0) << error_;
    EXPECT_EQ(localHour, 12u);
    EXPECT_EQ(out_, "result  ok\n");
}

TEST_F(CtlCall, TakesEveryExample) {
    for (const Method &method : Methods()) {
        const bool agent = std::string_view(method.service) == "TarnSysdiagAgent";
        std::string words;
        for (const std::string &word : WordsOf(method.meaning->example)) {
            words += " '" + word + "'";
        }
        const int code =
            Run(std::string("call ") + method.name + (agent ? " --pid 1" : "") + words + " --deadline 1ms");
        EXPECT_NE(code, 2) << error_;
    }
}

TEST_F(CtlCall, SendsNothingThatIsNotAccepted) {
    const auto refuse = [&](const std::string &arguments, const std::string &message) {
        onlineCalls = 0;
        ExpectFailure(2, arguments, message);
        EXPECT_EQ(onlineCalls, 0u);
    };
    refuse("call PidIsOnline", "PidIsOnline: missing process (uiPid); an example: tarnctl call PidIsOnline process=1");
    refuse("call PidIsOnline 7", "PidIsOnline: found 7, expected NAME=VALUE or JSON");
    refuse("call PidIsOnline proces=7",
           "PidIsOnline: proces: PidIsOnlineInput has no such member; did you mean process?");
    refuse("call PidIsOnline process=7 uiPid=7", "PidIsOnline: process (uiPid) is stated twice");
    refuse("call PidIsOnline process=7s",
           "PidIsOnline: process (uiPid): found 7s, expected a whole number, such as 12 or 0xc");
    refuse("call PidIsOnline process=4294967296",
           "PidIsOnline: uiPid: found 4294967296, expected a whole number from 0 to 4294967295");
    refuse("call SysOvLoadCpuThresholdSet begins-at=190%", "SysOvLoadCpuThresholdSet: begins-at (uiValue1) is 1900 ‰, "
                                                           "expected 0 to 1000");
    refuse("call SysOvLoadCpuThresholdSet '{\"uiValue1\": 1900}'",
           "SysOvLoadCpuThresholdSet: begins-at (uiValue1) is 1900 ‰, expected 0 to 1000");
    refuse("call SysOvLoadCpuThresholdSet begins-at=90s",
           "SysOvLoadCpuThresholdSet: begins-at (uiValue1): found 90s, expected a share, such as 90% or 900");
    refuse("call SetTimezone zone.offset=60",
           "SetTimezone: missing zone.name (szTimezoneName); an example: tarnctl call SetTimezone "
           "zone.name=Europe/Berlin zone.offset=60");
}

TEST_F(CtlCall, RepeatsAndMeasures) {
    EXPECT_EQ(Run("call PidIsOnline process=7 --repeat 25"), 0) << error_;
    EXPECT_TRUE(out_.starts_with("PidIsOnline: 25 calls, 0 failed, ")) << out_;
    EXPECT_EQ(Run("call PidIsOnline process=1 --repeat 25 --json"), 0) << error_;
    const auto json = Json::parse(out_);
    EXPECT_EQ(json["calls"], 25);
    EXPECT_EQ(json["failures"], Json::array());
    EXPECT_GT(json["latencyMs"]["p50"], 0.0);
    EXPECT_LE(json["latencyMs"]["p50"], json["latencyMs"]["p99"]);
    EXPECT_LE(json["latencyMs"]["p99"], json["latencyMs"]["max"]);
    EXPECT_EQ(Run("call PidIsOnline process=1 --repeat 0"), 2);
}

TEST_F(CtlCall, CountsTheFailuresOfRepeatedCalls) {
    EXPECT_EQ(Run("call GetProcStatByPid process=1 --repeat 3"), 5);
    EXPECT_TRUE(out_.ends_with("3 x TarnSysdiagTarnd.GetProcStatByPid: not implemented (status 38)\n")) << out_;
    EXPECT_EQ(error_, "tarnctl: 3 of 3 calls failed\n");
    EXPECT_EQ(Run("call GetProcStatByPid process=1 --repeat 3 --json"), 5);
    EXPECT_EQ(Json::parse(out_)["failures"][0]["count"], 3);
}

TEST_F(CtlCall, SendsOneWay) {
    EXPECT_EQ(Run("call GetProcStatByPid process=1 --oneway"), 0) << error_; // its failure does not come back
    EXPECT_EQ(out_, "GetProcStatByPid: sent one way\n");
    EXPECT_EQ(Run("call GetProcStatByPid process=1 --oneway --json"), 0) << error_;
    EXPECT_EQ(out_, "null\n");
    EXPECT_EQ(Run("call GetProcStatByPid process=1 --oneway --repeat 5"), 0) << error_;
    EXPECT_TRUE(out_.starts_with("GetProcStatByPid: 5 calls, 0 failed, ")) << out_;
}

TEST_F(CtlCall, ShowsProcessesByName) {
    const std::string self = std::to_string(getpid());
    EXPECT_EQ(Run("call PidIsOnline process=" + self), 0) << error_;
    EXPECT_EQ(out_, "process  " + self + " (ctl_test)\nonline   off\n");
}

TEST_F(CtlCall, ShowsWhatTheServerCounted) {
    EXPECT_EQ(Run("call PidIsOnline process=1 --repeat 7"), 0) << error_;
    EXPECT_EQ(Run("call GetProcStatByPid process=1"), 5);
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
    EXPECT_EQ(Run("call PidIsOnline process=1"), 3);
    EXPECT_EQ(Run(option + " call PidIsOnline process=1"), 0) << error_;
    EXPECT_EQ(Run("call PidIsOnline process=1 " + option), 0) << error_;
    EXPECT_EQ(Run("stats " + option), 0) << error_;
    EXPECT_EQ(Run("services " + option), 0) << error_;
    EXPECT_NE(out_.find("TarnSysdiagTarnd"), std::string::npos) << out_;
    EXPECT_EQ(Run("services --run-dir ''"), 2);
    dir_ = dir_.parent_path();
}

// Its connection would become standard output, and get the reply as text.
TEST_F(CtlCall, WithoutStandardStreamsWritesNowhere) {
    EXPECT_EQ(Run("call PidIsOnline process=1 >&- <&-"), 1);
    EXPECT_EQ(error_, "tarnctl: cannot write to standard output\n");
    EXPECT_EQ(Run("stats --json"), 0);
    const auto status = Json::parse(out_);
    for (const auto &reason : status["refused"]) {
        EXPECT_EQ(reason["value"], 0) << reason;
    }
}

TEST_F(CtlCall, TellsAResultThatIsAFailureAndWhy) {
    const std::string told =
        "TarnSysdiagTarnd.SetDst: result (uiResult) is 22 (Invalid argument): begins-at is 1900 ‰,?expected "
        "0 to 1000";
    EXPECT_EQ(Run("call SetDst rule.on=off"), 5);
    EXPECT_EQ(out_, "result  22 (Invalid argument)\n");
    EXPECT_EQ(error_, "tarnctl: " + told + "\n");
    EXPECT_EQ(Run("call SetDst rule.on=off --json"), 5);
    EXPECT_EQ(Json::parse(out_), (Json{{"uiResult", 22}}));
    EXPECT_EQ(error_, "tarnctl: " + told + "\n");
    EXPECT_EQ(Run("call SetDst rule.on=off --repeat 2"), 5);
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
    EXPECT_EQ(Run("call PidIsOnline process=1 --repeat 1000000000"), 0);
    user.join();
    EXPECT_NE(out_.find(" calls, 0 failed, "), std::string::npos) << out_;
}

TEST_F(CtlCall, TellsRemoteFailures) {
    ExpectFailure(5, "call GetProcStatByPid process=1",
                  "TarnSysdiagTarnd.GetProcStatByPid: not implemented (status 38)");
    EXPECT_EQ(Run("call GetTaskInfo"), 5);
    EXPECT_NE(error_.find("status 5"), std::string::npos) << error_;
}

TEST_F(CtlCall, TellsTheDeadline) {
    EXPECT_EQ(Run("call SetTimezone zone.name=UTC zone.offset=0 --deadline 200ms"), 4);
    EXPECT_NE(error_.find("error 110"), std::string::npos) << error_;
}

TEST_F(CtlCall, TellsARefusedReply) {
    ExpectFailure(
        6, "call GetHugePagesInfo",
        "GetHugePagesInfo: the reply is refused as HugePagesOutput: byte 0, the message: the table's position is "
        "4294967295, expected 4");
}

} // namespace
