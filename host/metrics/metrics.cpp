#include "host/metrics/metrics.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <stdexcept>

#include "host/describe/types.h"
#include "host/meaning/meaning.h"
#include "host/metrics/exposition.h"

namespace host::metrics {

namespace {

using describe::Json;
using meaning::Kind;

// A number in a method's reply. Its unit and its help are those that the member means.
struct Figure {
    const char *name; // without unit
    Type type;
    const char *method;
    const char *member;
    const char *in = "";       // the member of records that have it; empty: the reply itself
    const char *label = "";    // by which the records are told apart
    const char *labelled = ""; // the member that names a record
    const char *except = "";   // the name of the record that is all the others together
};

constexpr const char *kCpus = "MultiCpuUsageQuery";
constexpr const char *kHealth = "TarnPadsGetSystemHealthInfoByTarnd";

constexpr Figure kFigures[] = {
    {"tarn_cpu_busy", Type::kGauge, kCpus, "busy", "cpus", "cpu", "name", "cpu"},
    {"tarn_cpu_user", Type::kGauge, kCpus, "user", "cpus", "cpu", "name", "cpu"},
    {"tarn_cpu_system", Type::kGauge, kCpus, "system", "cpus", "cpu", "name", "cpu"},
    {"tarn_cpu_waiting", Type::kGauge, kCpus, "waiting", "cpus", "cpu", "name", "cpu"},
    {"tarn_cpu_load", Type::kGauge, "GetKpiCpuInfo", "load"},
    {"tarn_cpu_overloads", Type::kCounter, "GetSysCpuOverloadCfg", "overloads"},
    {"tarn_memory_used", Type::kGauge, "GetKpiMemoryInfo", "now"},
    {"tarn_memory_available", Type::kGauge, "GetKpiMemoryInfo", "available"},
    {"tarn_memory_overloads", Type::kCounter, "GetSysMemOverloadCfg", "overloads"},
    {"tarn_memory_overloaded", Type::kGauge, "GetSysMemOverloadStat", "overloaded"},
    {"tarn_health_level", Type::kGauge, kHealth, "level", "items", "item", "name"},
    {"tarn_integrity_differences", Type::kGauge, "TarnGetDimMeasRstByTarnd", "differences"},
};

struct Unit {
    const char *suffix;
    double times = 1;
    double by = 1; // a tenth is no double, ten is
};

Unit UnitOf(Kind kind) {
    switch (kind) {
    case Kind::kPermille:
        return {"_ratio", 1, 1000};
    case Kind::kPercent:
        return {"_ratio", 1, 100};
    case Kind::kThousandths:
        return {"", 1, 1000};
    case Kind::kKib:
        return {"_bytes", 1024};
    case Kind::kMib:
        return {"_bytes", 1024 * 1024};
    case Kind::kBytes:
        return {"_bytes"};
    case Kind::kNanoseconds:
        return {"_seconds", 1, 1e9};
    case Kind::kMicroseconds:
        return {"_seconds", 1, 1e6};
    case Kind::kMilliseconds:
        return {"_seconds", 1, 1e3};
    case Kind::kSeconds:
        return {"_seconds"};
    default:
        return {""};
    }
}

double Seconds(std::chrono::nanoseconds time) {
    return static_cast<double>(time.count()) / 1e9;
}

// A record's type, with what its members mean.
struct Means {
    const describe::Type &type;
    const meaning::Record &record;

    size_t Slot(std::string_view member) const {
        const auto found = std::ranges::find(record.members, member, &meaning::Member::name);
        if (found == record.members.end()) {
            throw std::logic_error(fmt::format("{} has no {}", record.type, member));
        }
        return static_cast<size_t>(found - record.members.begin());
    }
    const Json &Of(const Json &json, std::string_view member) const { return json.at(type.slots[Slot(member)].name); }
    Means Inside(std::string_view member) const {
        return {*type.slots[Slot(member)].table, *record.inside[Slot(member)]};
    }
};

// "0 good, 1 degraded": what the numbers stand for.
std::string HelpOf(const meaning::Member &member) {
    std::string help(member.sentence);
    for (const meaning::Choice &choice : member.value.choices) {
        help += fmt::format("{} {} {}", &choice == member.value.choices.data() ? "" : ",", choice.value, choice.name);
    }
    return help;
}

class Writer {
public:
    explicit Writer(const Source &source) : source_(source) {}

    void AddServer(const ServerStatus &status) {
        const ServerHealth &health = status.health;
        AddOne("tarn_build_info", "The version of the daemon's runtime.", 1, {{"version", health.version}});
        AddOne("tarn_uptime_seconds", "How long the daemon has been serving.", Seconds(health.uptime));
        AddOne("tarn_workers", "The threads that run methods.", health.workers);
        AddOne("tarn_workers_busy", "The threads that run a method now.", health.busy);
        AddOne("tarn_connections", "The connections to the daemon.", static_cast<double>(health.connections));
        AddOne("tarn_requests", "The requests that have arrived and not ended.", static_cast<double>(health.requests));
        AddOne("tarn_config_mistakes", "The files that were read again and are wrong: what was in force before holds.",
               static_cast<double>(status.mistakes.size()));
        out_.Begin("tarn_refused_total", Type::kCounter, "Connections and requests that were refused or cut off.");
        for (const NamedValue &reason : status.refused) {
            out_.Add({{"reason", reason.name}}, static_cast<double>(reason.value));
        }
    }

    // Methods that nobody has called have no samples.
    void AddMethods(const ServerStatus &status) {
        AddCounts(status, "tarn_method_calls_total", "Calls that have ended.", &MethodStatus::calls);
        AddCounts(status, "tarn_method_errors_total", "Calls that ended with an error.", &MethodStatus::errors);
        AddCounts(status, "tarn_method_cancelled_total", "Calls whose caller had given up or gone.",
                  &MethodStatus::cancelled);
        out_.Begin("tarn_method_duration_seconds", Type::kHistogram, "From the arrival of a request to its answer.");
        ForEachCalled(status, [&](const std::vector<Label> &labels, const MethodStatus &method) {
            if (!method.below.empty()) {
                AddHistogram(labels, method);
            }
        });
    }

    void AddFigures() {
        for (const Figure &figure : kFigures) {
            if (const std::optional<Json> &reply = ReplyTo(figure.method)) {
                Add(figure, *reply);
            }
        }
    }

    // When, rather than how many: the journal forgets the oldest.
    void AddEvents() {
        constexpr uint32_t kLast = 1000;
        std::map<std::string, double> newest;
        try {
            for (const Json &event : source_.events(kLast)) {
                double &time = newest[event.at("kind").get<std::string>()];
                time = std::max(time, event.at("time_ms").get<double>() / 1000);
            }
        } catch (const std::runtime_error &error) {
            Fail("Events", error);
        }
        out_.Begin("tarn_last_event_timestamp_seconds", Type::kGauge,
                   fmt::format("When the newest event of a kind happened, of the last {} in the journal.", kLast));
        for (const auto &[kind, time] : newest) {
            out_.Add({{"kind", kind}}, time);
        }
    }

    std::string Text() {
        out_.Begin("tarn_metrics_unanswered", Type::kGauge, "What could not be asked for metrics.");
        for (const auto &[method, why] : failed_) {
            out_.Comment(fmt::format("{}: {}", method, why));
            out_.Add({{"method", method}}, 1);
        }
        return out_.Text();
    }

private:
    void AddOne(std::string_view name, std::string_view help, double value, const std::vector<Label> &labels = {}) {
        out_.Begin(name, Type::kGauge, help);
        out_.Add(labels, value);
    }

    template <class Do>
    static void ForEachCalled(const ServerStatus &status, const Do &what) {
        for (const ServiceStatus &service : status.services) {
            for (const MethodStatus &method : service.methods) {
                if (method.calls != 0) {
                    what({{"service", service.name}, {"method", method.name}}, method);
                }
            }
        }
    }

    void AddCounts(const ServerStatus &status, std::string_view name, std::string_view help,
                   uint64_t MethodStatus::*count) {
        out_.Begin(name, Type::kCounter, help);
        ForEachCalled(status, [&](const std::vector<Label> &labels, const MethodStatus &method) {
            out_.Add(labels, static_cast<double>(method.*count));
        });
    }

    void AddHistogram(std::vector<Label> labels, const MethodStatus &method) {
        out_.Add(labels, Seconds(method.sum), "_sum");
        out_.Add(labels, static_cast<double>(method.below.back().calls), "_count");
        for (const CallsBelow &below : method.below) {
            const bool isLast = &below == &method.below.back();
            labels.push_back({"le", isLast ? "+Inf" : fmt::format("{}", Seconds(below.time))});
            out_.Add(labels, static_cast<double>(below.calls), "_bucket");
            labels.pop_back();
        }
    }

    void Add(const Figure &figure, const Json &reply) {
        const describe::Method &method = *describe::FindMethod(figure.method);
        const Means whole{*method.response, *method.meaning->response};
        const bool isInside = *figure.in != '\0';
        const Means means = isInside ? whole.Inside(figure.in) : whole;
        const meaning::Member &member = means.record.members[means.Slot(figure.member)];
        const Unit unit = UnitOf(member.value.kind);
        out_.Begin(fmt::format("{}{}{}", figure.name, unit.suffix, figure.type == Type::kCounter ? "_total" : ""),
                   figure.type, HelpOf(member));
        const auto add = [&](const Json &record, const std::vector<Label> &labels) {
            out_.Add(labels, means.Of(record, figure.member).get<double>() * unit.times / unit.by);
        };
        if (!isInside) {
            add(reply, {});
            return;
        }
        for (const Json &record : whole.Of(reply, figure.in)) {
            const auto name = means.Of(record, figure.labelled).get<std::string>();
            if (name != figure.except) {
                add(record, {{figure.label, name}});
            }
        }
    }

    // Each method is asked once.
    const std::optional<Json> &ReplyTo(const std::string &method) {
        const auto [known, isNew] = replies_.try_emplace(method);
        if (isNew) {
            try {
                known->second = source_.call(method);
            } catch (const std::runtime_error &error) {
                Fail(method, error);
            }
        }
        return known->second;
    }

    void Fail(const std::string &method, const std::runtime_error &error) { failed_[method] = error.what(); }

    const Source &source_;
    Exposition out_;
    std::map<std::string, std::optional<Json>> replies_;
    std::map<std::string, std::string> failed_; // why, by method
};

} // namespace

std::string MetricsOf(const ServerStatus &status, const Source &source) {
    Writer writer(source);
    writer.AddServer(status);
    writer.AddMethods(status);
    writer.AddFigures();
    writer.AddEvents();
    return writer.Text();
}

} // namespace host::metrics
