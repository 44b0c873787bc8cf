#include "MetricsText.h"

#include <Poco/DateTime.h>
#include <Poco/DateTimeFormat.h>
#include <Poco/DateTimeParser.h>
#include <Poco/String.h>
#include <Poco/Timestamp.h>

#include <functional>
#include <initializer_list>
#include <iomanip>
#include <limits>
#include <map>
#include <sstream>
#include <tuple>
#include <utility>

namespace Agent {

namespace {

using Label = std::pair<const char*, std::string>;

void AddHead(std::string& text, const std::string& name, const char* type, const char* help) {
    text += "# HELP " + name + ' ' + help + "\n# TYPE " + name + ' ' + type + '\n';
}

/// As the format wants it in the value of a label.
std::string Escape(const std::string& text) {
    return Poco::replace(Poco::replace(Poco::replace(text, "\\", "\\\\"), "\"", "\\\""), "\n",
                         "\\n");
}

/// `{book="alarms",by="stdout"}`; nothing without labels.
std::string Labels(std::initializer_list<Label> labels) {
    std::string shown;
    for (const auto& [name, text] : labels) {
        shown += (shown.empty() ? "{" : ",") + std::string(name) + "=\"" + Escape(text) + '"';
    }
    return shown + (shown.empty() ? "" : "}");
}

std::string Number(double value) {
    std::ostringstream text;
    // All digits that a decimal number keeps in a double: 0.00025 stays that.
    text << std::setprecision(std::numeric_limits<double>::digits10) << value;
    return text.str();
}

/// Collects the samples of one metric, and writes them behind its head when it ends: one metric
/// ends before the next begins.
class Metric {
public:
    Metric(std::string& text, std::string name, const char* type, const char* help)
        : m_text(text), m_name(std::move(name)) {
        AddHead(m_text, m_name, type, help);
    }

    ~Metric() {
        for (const auto& [labels, value] : m_samples) {
            m_text += m_name + labels + ' ' + std::to_string(value) + '\n';
        }
    }
    Metric(const Metric&) = delete;
    Metric& operator=(const Metric&) = delete;

    /// Samples with the same labels, as of two outputs to one place, become one: a reader refuses
    /// everything when a sample comes twice.
    void Add(std::uint64_t value, std::initializer_list<Label> labels = {}) {
        m_samples[Labels(labels)] += value;
    }

private:
    std::string& m_text;
    const std::string m_name;
    std::map<std::string, std::uint64_t> m_samples;
};

constexpr const char* kGauge = "gauge";
constexpr const char* kCounter = "counter";

/// @return seconds since the epoch; 0 for an empty text
std::uint64_t Seconds(const std::string& time) {
    Poco::DateTime parsed;
    int zone = 0;
    return Poco::DateTimeParser::tryParse(Poco::DateTimeFormat::ISO8601_FORMAT, time, parsed, zone)
               ? static_cast<std::uint64_t>(parsed.timestamp().epochTime())
               : 0;
}

void AddAgent(std::string& text, const Json::Value& status) {
    Metric(text, "vmescape_up", kGauge, "Whether the agent answers.").Add(status.isNull() ? 0 : 1);
    if (status.isNull()) {
        return;
    }
    Metric(text, "vmescape_degraded", kGauge, "Whether something of it does not work as it should.")
        .Add(status["state"] == "up" ? 0 : 1);
    Metric(text, "vmescape_build_info", kGauge, "Always 1; the label tells the version.")
        .Add(1, {{"version", status["version"].asString()}});
    Metric(text, "vmescape_start_time_seconds", kGauge, "When it started, since the epoch.")
        .Add(Seconds(status["started"].asString()));
    Metric(text, "vmescape_last_alarm_time_seconds", kGauge,
           "When an output last took an alarm, since the epoch; 0: never.")
        .Add(Seconds(status["last_alarm"].asString()));
    if (status["machines"].isUInt64()) {
        Metric(text, "vmescape_machines", kGauge, "Virtual machines that it watches.")
            .Add(status["machines"].asUInt64());
    }
}

void AddTasks(std::string& text, const Json::Value& tasks) {
    const auto each = [&](const char* name, const char* type, const char* help,
                          const std::function<std::uint64_t(const Json::Value&)>& value) {
        Metric metric(text, name, type, help);
        for (const Json::Value& task : tasks) {
            metric.Add(value(task), {{"task", task["name"].asString()}});
        }
    };
    each("vmescape_task_up", kGauge, "Whether the task works.",
         [](const Json::Value& task) { return task["state"] == "up" ? 1 : 0; });
    each("vmescape_task_inbox_messages", kGauge, "Messages that wait for the task.",
         [](const Json::Value& task) { return task["waiting"].asUInt64(); });
    each("vmescape_task_inbox_capacity", kGauge, "Messages that may wait for the task.",
         [](const Json::Value& task) { return task["capacity"].asUInt64(); });
    each("vmescape_task_messages_total", kCounter, "Messages that the task was given.",
         [](const Json::Value& task) { return task["received"].asUInt64(); });
    each("vmescape_task_messages_lost_total", kCounter,
         "Messages that found the task's inbox full and had nowhere else to wait.",
         [](const Json::Value& task) { return task["lost"].asUInt64(); });
}

void AddBooks(std::string& text, const Json::Value& books) {
    for (const auto& [key, type, help] : {std::tuple{"seen", kCounter, "What the part was given."},
                                          std::tuple{"delivered", kCounter, "What it delivered."},
                                          std::tuple{"waiting", kGauge, "What waits in it."}}) {
        const bool counts = type == kCounter;
        Metric metric(text, std::string("vmescape_") + key + (counts ? "_total" : ""), type, help);
        for (const Json::Value& book : books) {
            metric.Add(book[key].asUInt64(),
                       {{"book", book["name"].asString()}, {"by", book["by"].asString()}});
        }
    }
    for (const auto& [key, label, help] :
         {std::tuple{"filtered", "reason", "What it left out on purpose."},
          std::tuple{"lost", "reason", "What it lost."},
          std::tuple{"kinds", "kind", "How many of which kind, where it tells kinds apart."}}) {
        Metric metric(text, std::string("vmescape_") + key + "_total", kCounter, help);
        for (const Json::Value& book : books) {
            for (const std::string& name : book[key].getMemberNames()) {
                metric.Add(book[key][name].asUInt64(), {{"book", book["name"].asString()},
                                                        {"by", book["by"].asString()},
                                                        {label, name}});
            }
        }
    }
}

void AddTroubles(std::string& text, const Json::Value& books) {
    Metric metric(text, "vmescape_trouble", kGauge,
                  "Whether the part does not do all that it should; status tells why.");
    for (const Json::Value& book : books) {
        metric.Add(book["trouble"].asString().empty() ? 0 : 1,
                   {{"book", book["name"].asString()}, {"by", book["by"].asString()}});
    }
}

void AddAlarmedMachines(std::string& text, const Json::Value& books) {
    Metric metric(text, "vmescape_alarmed_machines", kGauge,
                  "Virtual machines that alarms have named since the start.");
    for (const Json::Value& book : books) {
        for (const std::string& kind : book["machines"].getMemberNames()) {
            metric.Add(book["machines"][kind].asUInt64(), {{"class", kind}});
        }
    }
}

/// One histogram of Prometheus: its buckets count all below them, too.
void AddHistogram(std::string& text, const std::string& name, const std::string& book,
                  const std::string& by, const Json::Value& latency) {
    std::uint64_t below = 0;
    Json::ArrayIndex bucket = 0;
    const auto add = [&](const std::string& bound) {
        below += latency["counts"][bucket++].asUInt64();
        text += name + "_bucket" + Labels({{"book", book}, {"by", by}, {"le", bound}}) + ' ' +
                std::to_string(below) + '\n';
    };
    for (const Json::Value& bound : latency["bounds"]) {
        add(Number(bound.asDouble()));
    }
    add("+Inf");
    const std::string labels = Labels({{"book", book}, {"by", by}}) + ' ';
    text += name + "_sum" + labels + Number(latency["sum"].asDouble()) + '\n';
    text += name + "_count" + labels + std::to_string(below) + '\n';
}

void AddLatencies(std::string& text, const Json::Value& books) {
    // As with the samples of other metrics, books of one name become one.
    std::map<std::pair<std::string, std::string>, Json::Value> latencies;
    for (const Json::Value& book : books) {
        if (!book.isMember("latency")) {
            continue;
        }
        Json::Value& all = latencies[{book["name"].asString(), book["by"].asString()}];
        all["bounds"] = book["latency"]["bounds"];
        all["sum"] = all["sum"].asDouble() + book["latency"]["sum"].asDouble();
        Json::ArrayIndex bucket = 0;
        for (const Json::Value& count : book["latency"]["counts"]) {
            Json::Value& sum = all["counts"][bucket++];
            sum = Json::UInt64{sum.asUInt64() + count.asUInt64()};
        }
    }
    const std::string name = "vmescape_latency_seconds";
    AddHead(text, name, "histogram", "How long the part took to deliver, from the event on.");
    for (const auto& [book, latency] : latencies) {
        AddHistogram(text, name, book.first, book.second, latency);
    }
}

void AddPolicies(std::string& text, const Json::Value& policies) {
    {
        Metric generation(text, "vmescape_policy_generation", kGauge,
                          "How often the feature got a policy; 0: it has none.");
        for (const Json::Value& policy : policies) {
            generation.Add(policy["generation"].asUInt64(),
                           {{"feature", policy["feature"].asString()}});
        }
    }
    Metric refused(text, "vmescape_policy_refused", kGauge,
                   "Whether the newest policy of the feature was refused.");
    for (const Json::Value& policy : policies) {
        refused.Add(policy.isMember("refused") ? 1 : 0,
                    {{"feature", policy["feature"].asString()}});
    }
}

}  // namespace

std::string ToMetrics(const Json::Value& status) {
    std::string text;
    AddAgent(text, status);
    if (!status.isNull()) {
        AddTasks(text, status["tasks"]);
        AddBooks(text, status["books"]);
        AddTroubles(text, status["books"]);
        AddAlarmedMachines(text, status["books"]);
        AddLatencies(text, status["books"]);
        AddPolicies(text, status["policies"]);
    }
    return text;
}

}  // namespace Agent
