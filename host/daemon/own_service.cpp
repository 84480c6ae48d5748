#include "host/daemon/own_service.h"

#include "host/meaning/methods.h"
#include "host/meaning/words.h"
#include "host/osal/json_writer.h"

namespace tarnd {

namespace {

using host::JsonWriter;
namespace methods = host::methods;
namespace system_health_item = host::meaning::system_health_item;

// Where nobody but a client can set it.
Source ClientUnless(bool isDefault) {
    return isDefault ? Source::kDefault : Source::kClient;
}

// The members of a request, all of which are numbers, by the names of the wire.
void WriteMembers(JsonWriter &json, const host::meaning::Record &meaning, const void *request) {
    for (size_t i = 0; i < meaning.members.size(); ++i) {
        json.Member(meaning.members[i].wire, host::meaning::NumberOf(meaning, i, request));
    }
}

// What is in force, as the request that would set it.
class SettingsWriter {
public:
    explicit SettingsWriter(JsonWriter &json) : json_(json) {}

    template <class Method>
    void Add(const Method &method, Source source, const typename Method::Request &request) {
        json_.Object([&] {
            json_.Member("method", method.name);
            json_.Member("source", NameOf(source));
            json_.Object("request", [&] { WriteMembers(json_, *method.request, &request); });
        });
    }

private:
    JsonWriter &json_;
};

void AddThresholds(SettingsWriter &settings, const Daemon &daemon) {
    const Setting<Thresholds> cpu = daemon.cpuOverload.System();
    const auto &[cpuOver, cpuRecover, cpuSeconds] = cpu.Value();
    settings.Add(methods::SysOvLoadCpuThresholdSet, cpu.From(), {cpuOver, cpuRecover, cpuSeconds});
    const Setting<MemoryThresholds> memory = daemon.memoryOverload.Thresholds();
    const auto &[memoryOver, memoryRecover] = memory.Value();
    settings.Add(methods::SysOvLoadMemThresholdSet, memory.From(), {memoryOver, memoryRecover});
    const StarvationSettings starvation = daemon.starvation.Settings(), byDefault;
    settings.Add(methods::SetTaskSwitch, ClientUnless(starvation.on == byDefault.on), {starvation.on ? 1U : 0U});
    settings.Add(methods::SetTaskStarvThreshold, ClientUnless(starvation.threshold == byDefault.threshold),
                 {static_cast<uint32_t>(starvation.threshold.count())});
}

void AddMeasurement(SettingsWriter &settings, const Measurement &measurement) {
    const Setting<MeasurementTimes> times = measurement.Times();
    settings.Add(methods::TarnSetDimTimeCfgByTarnd, times.From(), {times.Value().hour, times.Value().minute});
    const Setting<uint32_t> mode = measurement.Mode();
    settings.Add(methods::TarnSetDimWorkModeCfgByTarnd, mode.From(), {mode.Value()});
}

void AddHealth(SettingsWriter &settings, const HealthSettings &health) {
    const bool allOn = health.AllOn();
    settings.Add(methods::TarnPadsSetPadsGlobalSwitchByTarnd, ClientUnless(allOn), {allOn});
    for (const host::meaning::Choice &item : system_health_item::kAll) {
        const auto [on, limit, isSet] = health.Of(item);
        settings.Add(methods::TarnPadsSetPadsAppFunSwitchByTarnd, ClientUnless(!isSet),
                     {static_cast<uint8_t>(item), on, limit});
    }
}

} // namespace

bool OwnService::Has(std::string_view method) const {
    return method == "Settings" || history_.Has(method);
}

host::OwnMethods::Told OwnService::Tell(const Question &question) const {
    return question.method == "Settings" ? Told{TellSettings()} : history_.Tell(question);
}

std::string OwnService::TellSettings() const {
    JsonWriter json;
    json.Object([&] {
        json.Array("settings", [&] {
            SettingsWriter settings(json);
            AddThresholds(settings, daemon_);
            AddMeasurement(settings, daemon_.measurement);
            const host::DateFormat format = daemon_.clock.TheDateFormat();
            settings.Add(methods::SetDateFormat, ClientUnless(format == ClockSettings().dateFormat),
                         {static_cast<uint32_t>(format)});
            AddHealth(settings, daemon_.healthSettings);
        });
    });
    return json.Text();
}

} // namespace tarnd
