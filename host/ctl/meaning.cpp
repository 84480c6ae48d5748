#include "host/ctl/meaning.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <set>

#include "host/ctl/units.h"

namespace ctl {

using host::describe::Slot;
using host::describe::Type;

namespace {

// Types whose numbers are KiB, but for those that count or name something.
bool IsKib(const Type &type, std::string_view member) {
    static const std::set<std::string_view> types{"SysMemStatisPro", "SysMemStatisProResult", "SysOsMemInfo",
                                                  "SysProOs", "SysMemUseInfo"};
    static const std::set<std::string_view> counts{"uiThreadNum", "uiNodeId", "uiHugePagesTotal", "uiOomScore"};
    return types.contains(type.name) && member.starts_with("ui") && !counts.contains(member);
}

Unit UnitByName(const Type &type, std::string_view member) {
    static const std::set<std::string_view> ids{"uiPid",  "uiPpid",  "uiTid", "uiTargetPid",
                                                "uiLPid", "puiTids", "puiTid"};
    if (ids.contains(member)) {
        return Unit::kPid;
    }
    if (IsKib(type, member)) {
        return Unit::kKib;
    }
    if (member == "uiResult" || member == "uiTaskResult") {
        return Unit::kErrno;
    }
    return member.ends_with("Ms")      ? Unit::kMilliseconds
           : member.ends_with("Us")    ? Unit::kMicroseconds
           : member.ends_with("Sec")   ? Unit::kSeconds
           : member.ends_with("Bytes") ? Unit::kBytes
           : member.ends_with("Addr")  ? Unit::kAddress
                                       : Unit::kNone;
}

} // namespace

const std::vector<MemberMeaning> &KnownMeanings() {
    using enum Unit;
    static const std::vector<MemberMeaning> meanings{
        {"ProcessStatusOutput", "ucStatus", {nullptr, kLetter}},
        {"OsProcessCpuRet", "uiValue1", {"cpu", kPermille}},
        {"OsProcessCpuThread", "acName", {"name", kNone}},
        {"OsProcessCpuThread", "uiValue1", {"thread", kNone}},
        {"OsProcessCpuThread", "uiValue2", {"cpu", kPermille}},
        {"OsProcessCpuThread", "ullValue3", {"cpu time", kMicroseconds}},
        {"OsProcessCpuThread", "acValue4", {"state", kNone}},
        {"OsProcessCpuThread", "uiValue5", {"on cpu", kNone}},
        {"OsProcessCpuThread", "acValue6", {"scheduled", kNone}},
        {"ThreadCpu", "uiTid", {"thread", kNone}},
        {"ThreadCpu", "usValue1", {"cpu", kPermille}},
        {"ThreadCpu", "ucValue2", {"state", kLetter}},
        {"ThreadCpu", "ucValue3", {"on cpu", kNone}},
        {"ThreadCpu", "ullValue4", {"cpu time", kMicroseconds}},
        {"ThreadCpu", "ullValue5", {"waited", kMicroseconds}},
        {"ThreadCpu", "acName", {"name", kNone}},
        {"ThreadCpu", "uiValue6", {"process", kNone}},
        {"ThreadCpu", "acValue7", {"of", kNone}},
        {"ThreadCpu", "acValue8", {"scheduled", kNone}},
        {"ThreadCpu", "uiValue9", {"switches", kNone}},
        {"HugePagesOutput", "uiValue1", {"pages", kNone}},
        {"HugePagesOutput", "uiValue2", {"free", kNone}},
        {"SysCpuStatProc", "uiPid", {"process", kNone}},
        {"SysCpuStatProc", "acName", {"name", kNone}},
        {"SysCpuStatProc", "uiValue1", {"cpu", kPermille}},
        {"SysCpuStatProc", "uiValue2", {"highest", kPermille}},
        {"SysCpuStatProc", "uiValue3", {"user time", kMilliseconds}},
        {"SysCpuStatProc", "uiValue4", {"system time", kMilliseconds}},
        {"SysCpuStatProc", "stTime1", {"highest at", kNone}},
        {"SysCpuStatProc", "acValue5", {"state", kNone}},
        {"SysCpuStatProc", "uiValue6", {"parent", kNone}},
        {"SysCpuStatProc", "uiValue7", {"threads", kNone}},
        {"SysCpuStatProc", "uiValue8", {"nice", kSigned}},
        {"SysCpuStatProc", "uiValue9", {"on cpu", kNone}},
        {"SysCpuStatProc", "stTime2", {"started", kNone}},
        {"SysCpuStatProc", "acValue10", {"user", kNone}},
        {"SysCpuStatProc", "acValue11", {"program", kNone}},
        {"SysCpuStatProc", "uiValue12", {"cpu since start", kPermille}},
        {"SysCpuStatProc", "uiValue13", {"major faults", kNone}},
        {"SysCpuStatProc", "uiValue14", {"resident", kKib}},
        {"MultiCpuUsage", "acName", {"cpu", kNone}},
        {"MultiCpuUsage", "uiValue1", {"busy", kPermille}},
        {"MultiCpuUsage", "uiValue2", {"user", kPermille}},
        {"MultiCpuUsage", "uiValue3", {"system", kPermille}},
        {"MultiCpuUsage", "uiValue4", {"waiting", kPermille}},
        {"MultiCpuUsage", "uiValue5", {"highest", kPermille}},
        {"MultiCpuUsage", "stTime", {"highest at", kNone}},
        {"DisCpuOvloadRet", "stTime1", {"began", kNone}},
        {"DisCpuOvloadRet", "acName", {"process name", kNone}},
        {"DisCpuOvloadRet", "uiValue1", {"process", kPid}},
        {"DisCpuOvloadRet", "uiValue2", {"cpu of the system", kPermille}},
        {"DisCpuOvloadRet", "uiValue3", {"cpu of the process", kPermille}},
        {"DisCpuOvloadRet", "stTime2", {"ended", kNone}},
        {"TopCpuOvloadThread", "ullCpuTime", {nullptr, kMilliseconds}},
        {"TopCpuOvloadThread", "uiCpuUse", {nullptr, kPermille}},
        {"SysCpuMonitorHistoryInfo", "ucValue1", {"busy", kPercent}},
        {"SysCpuMonitorHistoryInfo", "ucValue2", {"waiting", kPercent}},
        {"GetSysCpuOverloadCfgOutput", "uiValue1", {"begins at", kPermille}},
        {"GetSysCpuOverloadCfgOutput", "uiValue2", {"ends below", kPermille}},
        {"GetSysCpuOverloadCfgOutput", "uiValue3", {"must last", kSeconds}},
        {"GetSysCpuOverloadCfgOutput", "uiValue4", {"watched processes", kNone}},
        {"GetSysCpuOverloadCfgOutput", "uiValue5", {"sampled every", kMilliseconds}},
        {"GetSysCpuOverloadCfgOutput", "uiValue6", {"overloads", kNone}},
        {"DisOsResourceInfoRet", "acName", {"resource", kNone}},
        {"DisOsResourceInfoRet", "uiValue1", {"now", kPermille}},
        {"DisOsResourceInfoRet", "uiValue2", {"last minute", kPermille}},
        {"DisOsResourceInfoRet", "uiValue3", {"highest", kPermille}},
        {"ExceptionInfoResult", "uiValue1", {"records", kNone}},
        {"AssertInfoResult", "uiValue1", {"records", kNone}},
        {"DumpOsProcMemValueResult", "uiValue1", {"read", kBytes}},
        {"SysMemStatisFile", "uiValue1", {"in memory", kKib}},
        {"SysMemStatisFile", "uiValue2", {"mapped by", kNone}},
        {"SysMemStatisFile", "acValue3", {"most of it", kNone}},
        {"SysMemStatisFile", "acValue4", {"device, inode", kNone}},
        {"SysOsMemFileResult", "uiValue1", {"in all", kKib}},
        {"SysOsMemFile", "acValue1", {"changed", kNone}},
        {"SysOsMemFile", "acValue2", {"owner", kNone}},
        {"SysOsMemFile", "acValue3", {"mode", kNone}},
        {"SysOsMemFile", "uiValue4", {"takes", kKib}},
        {"SysMemStatisShare", "uiValue1", {"id", kNone}},
        {"SysMemStatisShare", "uiValue2", {"size", kKib}},
        {"SysMemStatisShare", "uiValue3", {"in memory", kKib}},
        {"SysMemStatisShare", "uiValue4", {"users", kNone}},
        {"SysMemStatisShare", "acValue5", {"kind, mode, owner", kNone}},
        {"GetSysMemOverloadCfgOutput", "uiValue1", {"begins at", kPermille}},
        {"GetSysMemOverloadCfgOutput", "uiValue2", {"ends below", kPermille}},
        {"GetSysMemOverloadCfgOutput", "uiValue3", {"in use", kPermille}},
        {"GetSysMemOverloadCfgOutput", "uiValue4", {"measured every", kMilliseconds}},
        {"GetSysMemOverloadCfgOutput", "uiValue5", {"overloads", kNone}},
        {"CallStackContext", "uiValue1", {"held up in all", kMicroseconds}},
        {"CallStackThreadInfo", "uiTid", {"thread", kNone}},
        {"CallStackThreadInfo", "szThreadName", {"name", kNone}},
        {"CallStackThreadInfo", "ullValue1", {"cpu time", kMicroseconds}},
        {"CallStackThreadInfo", "szName2", {"process", kNone}},
        {"CallStackThreadInfo", "uiValue2", {"frames", kNone}},
        {"CallStackThreadInfo", "uiValue3", {"held up", kMicroseconds}},
        {"CpuOvMonThread", "uiValue1", {"thread", kPid}},
        {"CpuOvMonThread", "uiValue2", {"cpu", kPermille}},
        {"CpuOvMonThread", "uiValue3", {"highest", kPermille}},
        {"CpuOvMonThread", "uiValue4", {"cpu time", kMilliseconds}},
        {"CpuOvMonThread", "ucValue5", {"state", kLetter}},
        {"CpuOvMonThread", "ucValue6", {"over", kNone}},
        {"CpuOvMonThread", "uiValue7", {"overloads", kNone}},
        {"ProcTableEntry", "ucState", {nullptr, kLetter}},
        {"ProcTableEntry", "uiRss", {nullptr, kKib}},
        {"GetQ5ProcInfoOutput", "uiValue1", {"parent", kPid}},
        {"GetQ5ProcInfoOutput", "uiValue2", {"session", kPid}},
        {"PadsCpuEvent", "uiCpuUse", {nullptr, kPermille}},
        {"PadsCpuEvent", "uiThreadUse", {nullptr, kPermille}},
        {"SubscribeInfo", "szName1", {"name", kNone}},
        {"SubscribeInfo", "szName2", {"events", kNone}},
    };
    return meanings;
}

Meaning MeaningOf(const Type &type, const Slot &slot) {
    const auto &known = KnownMeanings();
    const auto found = std::find_if(known.begin(), known.end(), [&](const MemberMeaning &one) {
        return std::string_view(one.type) == type.name && std::string_view(one.member) == slot.name;
    });
    return found != known.end() ? found->meaning : Meaning{nullptr, UnitByName(type, slot.name)};
}

std::string TextWithUnit(uint64_t value, Unit unit) {
    using std::chrono::nanoseconds;
    const auto count = static_cast<int64_t>(std::min<uint64_t>(value, 1'000'000'000'000));
    switch (unit) {
    case Unit::kPid:
        return PidText(value);
    case Unit::kPermille:
        return PermilleText(value);
    case Unit::kPercent:
        return std::to_string(value) + " %";
    case Unit::kSeconds:
        return DurationText(std::chrono::seconds(std::min<int64_t>(count, 1'000'000'000)));
    case Unit::kMilliseconds:
        return DurationText(std::chrono::milliseconds(count));
    case Unit::kMicroseconds:
        return DurationText(std::chrono::microseconds(count));
    case Unit::kKib:
        return SizeText(std::min<uint64_t>(value, UINT64_MAX / 1024) * 1024);
    case Unit::kBytes:
        return SizeText(value);
    case Unit::kLetter:
        return value > ' ' && value < 0x7F ? std::string(1, static_cast<char>(value)) : std::to_string(value);
    case Unit::kAddress:
        return fmt::format("{:#x}", value);
    case Unit::kSigned:
        return std::to_string(static_cast<int32_t>(value));
    case Unit::kErrno: {
        const char *const text = value == 0 || value > INT32_MAX ? nullptr : strerrordesc_np(static_cast<int>(value));
        return text == nullptr ? std::to_string(value) : fmt::format("{} ({})", value, text);
    }
    default:
        return std::to_string(value);
    }
}

const char *NameOf(Unit unit) {
    constexpr const char *kNames[] = {
        "",       "process or thread", "permille", "percent",    "s", "ms", "us", "KiB", "bytes",
        "letter", "address",           "signed",   "errno value"};
    return kNames[static_cast<size_t>(unit)];
}

} // namespace ctl
