#include "Status.h"

#include "Shown.h"
#include "sdk/JsonUtils.h"

#include <Poco/Format.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <numeric>
#include <sstream>

namespace Agent {

namespace {

// Whoever may put files into the folder of policies must not make the answer endless.
constexpr std::size_t kMaxShown = 64;

/// What comes from a file may hold anything.
std::string Printable(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](unsigned char byte) { return byte < ' ' || byte >= 0x7f; },
        '?');
    return text;
}

std::string Number(const Json::Value& value) { return std::to_string(value.asUInt64()); }

std::string TaskLine(const Json::Value& task) {
    return Poco::format("%-26s%-10s%12s%12s%12s\n", task["name"].asString(),
                        task["state"].asString(),
                        Number(task["waiting"]) + '/' + Number(task["capacity"]),
                        Number(task["received"]), Number(task["lost"]));
}

std::string PolicyState(const Json::Value& policy) {
    if (policy.isMember("refused")) {
        return "refused";
    }
    return policy.get("enabled", true).asBool() ? "in force" : "off";
}

std::string PolicyLine(const Json::Value& policy) {
    return Poco::format("%-26s%-10s%12s  %s  %s\n", Printable(policy["feature"].asString()),
                        PolicyState(policy), Number(policy["generation"]),
                        Printable(policy["hash"].asString()), policy["since"].asString());
}

Json::Value ByName(const std::map<std::string, std::uint64_t>& counts) {
    Json::Value named = Json::objectValue;
    for (const auto& [name, count] : counts) {
        named[name] = Json::UInt64{count};
    }
    return named;
}

Json::Value LatencyEntry(const SDK::LatencyHistogram& latency) {
    Json::Value entry;
    for (const auto bound : SDK::LatencyHistogram::BOUNDS) {
        entry["bounds"].append(std::chrono::duration<double>(bound).count());
    }
    for (const std::uint64_t count : latency.GetCounts()) {
        entry["counts"].append(Json::UInt64{count});
    }
    entry["sum"] = latency.SumS();
    return entry;
}

Json::Value BookEntry(const SDK::Ledger& ledger) {
    Json::Value entry;
    entry["name"] = ledger.m_name;
    entry["by"] = ledger.m_by;
    entry["seen"] = Json::UInt64{ledger.m_seen};
    entry["delivered"] = Json::UInt64{ledger.m_delivered};
    entry["waiting"] = Json::UInt64{ledger.m_waiting};
    entry["filtered"] = ByName(ledger.m_filtered);
    entry["lost"] = ByName(ledger.m_lost);
    entry["kinds"] = ByName(ledger.m_kinds);
    entry["machines"] = ByName(ledger.m_machines);
    if (ledger.m_latency.has_value()) {
        entry["latency"] = LatencyEntry(*ledger.m_latency);
    }
    entry["trouble"] = ledger.m_trouble;
    return entry;
}

/// "behind 3, in_kernel 1": those that are not 0.
std::string Reasons(const Json::Value& counts) {
    std::string text;
    for (const std::string& reason : counts.getMemberNames()) {
        if (counts[reason].asUInt64() > 0) {
            text += (text.empty() ? "" : ", ") + reason + ' ' + Number(counts[reason]);
        }
    }
    return text.empty() ? "0" : text;
}

/// "0.25 ms", "10 s"
std::string Duration(double seconds) {
    constexpr double kMsPerSecond = 1000;
    std::ostringstream text;
    if (seconds < 1) {
        text << seconds * kMsPerSecond << " ms";
    } else {
        text << seconds << " s";
    }
    return text.str();
}

std::uint64_t Sum(const Json::Value& counts) {
    return std::accumulate(
        counts.begin(), counts.end(), std::uint64_t{0},
        [](std::uint64_t sum, const Json::Value& count) { return sum + count.asUInt64(); });
}

/// Within what time so many of a hundred were delivered, as well as the buckets tell it.
std::string Within(const Json::Value& latency, std::uint64_t percent) {
    const std::uint64_t all = Sum(latency["counts"]);
    std::uint64_t below = 0;
    Json::ArrayIndex bucket = 0;
    double last = 0;
    for (const Json::Value& bound : latency["bounds"]) {
        last = bound.asDouble();
        below += latency["counts"][bucket++].asUInt64();
        if (below * 100 >= all * percent) {
            return "within " + Duration(last);
        }
    }
    return "beyond " + Duration(last);
}

/// The numbers side by side, and below them, for each kind that has any, the reasons.
std::string BookLines(const Json::Value& book) {
    const std::string by = book["by"].asString();
    const std::string name = book["name"].asString() + (by.empty() ? "" : " (" + by + ')');
    std::string text = Poco::format("%-36s%12s%12s%12s\n", Printable(name), Number(book["seen"]),
                                    Number(book["delivered"]), Number(book["waiting"]));
    if (!book["kinds"].empty()) {
        text += "    kinds: " + Reasons(book["kinds"]) + '\n';
    }
    if (!book["machines"].empty()) {
        text += "    machines: " + Reasons(book["machines"]) + '\n';
    }
    if (Sum(book["latency"]["counts"]) > 0) {
        text += "    latency: half " + Within(book["latency"], 50) + ", 99 % " +
                Within(book["latency"], 99) + '\n';
    }
    if (!book["trouble"].asString().empty()) {
        text += "    degraded: " + Printable(book["trouble"].asString()) + '\n';
    }
    for (const char* kind : {"filtered", "lost"}) {
        text += Poco::format("    %s: %s\n", std::string(kind), Reasons(book[kind]));
    }
    return text;
}

}  // namespace

void Status::TakePolicy(const std::string& feature, const std::string& path,
                        const std::string& text, std::int64_t nowS) {
    Json::Value document;
    SDK::JsonUtils::ParseJsonStr(text.c_str(), text.length(), document);
    Policy& policy = m_policies[feature];
    policy.m_path = path;
    policy.m_hash = SDK::JsonUtils::GetStringValue(document, "hash", "");
    policy.m_enabled = SDK::JsonUtils::GetBoolValue(document, "enabled", true);
    policy.m_sinceS = nowS;
    policy.m_refusal.clear();
    ++policy.m_generation;
}

void Status::ForgetRefusal(const std::string& feature) {
    const auto found = m_policies.find(feature);
    if (found == m_policies.end()) {
        return;
    }
    found->second.m_refusal.clear();
    if (found->second.m_generation == 0) {
        m_policies.erase(found);
    }
}

void Status::RefusePolicy(const std::string& feature, const std::string& path,
                          const std::string& why) {
    Policy& policy = m_policies[feature];
    policy.m_path = path;
    policy.m_refusal = why;
}

bool Status::TakeStuckTasks(const std::vector<std::string>& stuck) {
    const bool changed = stuck != m_stuck;
    m_stuck = stuck;
    return changed;
}

std::vector<std::string> Status::Reasons(const std::vector<SDK::Ledger>& books) const {
    std::vector<std::string> reasons = m_stuck;
    for (const SDK::Ledger& ledger : books) {
        if (!ledger.m_trouble.empty()) {
            reasons.push_back(ledger.m_trouble);
        }
    }
    bool inForce = false;
    std::size_t refused = 0;
    for (const auto& [feature, policy] : m_policies) {
        inForce = inForce || policy.m_generation > 0;
        refused += policy.m_refusal.empty() ? 0 : 1;
        if (!policy.m_refusal.empty() && refused <= kMaxShown) {
            reasons.push_back(Poco::format("Policy(%s) is refused: %s", feature, policy.m_refusal));
        }
    }
    if (refused > kMaxShown) {
        reasons.push_back(Poco::format("%lu more policies are refused, the log names them",
                                       static_cast<unsigned long>(refused - kMaxShown)));
    }
    if (!inForce) {
        reasons.emplace_back("No policy is in force, nothing is detected");
    }
    return reasons;
}

Json::Value Status::Document(const std::vector<Framework::Engine::TaskStatus>& tasks,
                             const std::vector<SDK::Ledger>& books, std::size_t machines) const {
    Json::Value document;
    const std::vector<std::string> reasons = Reasons(books);
    document["version"] = VMESCAPE_VERSION;
    document["pid"] = ::getpid();
    document["started"] = ShowTime(m_startedS);
    document["state"] = reasons.empty() ? "up" : "degraded";
    document["reasons"] = Json::arrayValue;
    for (const std::string& reason : reasons) {
        document["reasons"].append(Shorten(reason));
    }
    document["machines"] = Json::UInt64{machines};
    std::int64_t lastAlarmS = 0;
    for (const SDK::Ledger& ledger : books) {
        document["books"].append(BookEntry(ledger));
        lastAlarmS = std::max(lastAlarmS, ledger.m_lastS);
    }
    document["last_alarm"] = lastAlarmS > 0 ? ShowTime(lastAlarmS) : "";
    for (const Framework::Engine::TaskStatus& task : tasks) {
        document["tasks"].append(TaskEntry(task));
    }
    document["policies"] = PolicyEntries();
    return document;
}

Json::Value Status::PolicyEntries() const {
    Json::Value entries = Json::arrayValue;
    std::size_t refused = 0;
    for (const auto& [feature, policy] : m_policies) {
        // What is in force is shown whatever else there is.
        refused += policy.m_generation == 0 ? 1 : 0;
        if (policy.m_generation == 0 && refused > kMaxShown) {
            continue;
        }
        Json::Value& entry = entries.append(Json::objectValue);
        entry["feature"] = Shorten(feature);
        entry["file"] = Shorten(policy.m_path);
        entry["enabled"] = policy.m_enabled;
        entry["generation"] = policy.m_generation;
        entry["hash"] = Shorten(policy.m_hash);
        entry["since"] = policy.m_generation > 0 ? ShowTime(policy.m_sinceS) : "";
        if (!policy.m_refusal.empty()) {
            entry["refused"] = Shorten(policy.m_refusal);
        }
    }
    return entries;
}

Json::Value Status::TaskEntry(const Framework::Engine::TaskStatus& task) const {
    const auto stuck = std::find_if(m_stuck.begin(), m_stuck.end(), [&](const auto& line) {
        return line.find('(' + task.m_name + ')') != std::string::npos;
    });
    Json::Value entry;
    entry["name"] = task.m_name;
    entry["feature"] = task.m_feature;
    entry["state"] = stuck != m_stuck.end() ? "down" : "up";
    entry["why"] = stuck != m_stuck.end() ? *stuck : std::string();
    entry["waiting"] = task.m_inboxDepth;
    entry["capacity"] = task.m_inboxCapacity;
    entry["received"] = Json::UInt64{task.m_messagesAccepted};
    entry["lost"] = Json::UInt64{task.m_messagesLost};
    return entry;
}

std::string Status::ToText(const Json::Value& document) {
    std::string text = Poco::format("vmescape-agent %s, pid %s, since %s: %s\n",
                                    document["version"].asString(), Number(document["pid"]),
                                    document["started"].asString(), document["state"].asString());
    for (const Json::Value& reason : document["reasons"]) {
        text += "  " + Printable(reason.asString()) + '\n';
    }
    text += Poco::format("\n%-26s%-10s%12s%12s%12s\n", std::string("task"), std::string("state"),
                         std::string("waiting"), std::string("received"), std::string("lost"));
    for (const Json::Value& task : document["tasks"]) {
        text += TaskLine(task);
    }
    text += Poco::format("\n%-26s%-10s%12s  %s  %s\n", std::string("policy"), std::string("state"),
                         std::string("generation"), std::string("hash"), std::string("since"));
    for (const Json::Value& policy : document["policies"]) {
        text += PolicyLine(policy);
    }
    text += Poco::format("\n%-36s%12s%12s%12s\n", std::string("books"), std::string("seen"),
                         std::string("delivered"), std::string("waiting"));
    for (const Json::Value& book : document["books"]) {
        text += BookLines(book);
    }
    const std::string last = document["last_alarm"].asString();
    text += "\nvirtual machines: " + Number(document["machines"]);
    return text + "\nlast alarm: " + (last.empty() ? "none yet" : last) + '\n';
}

}  // namespace Agent
