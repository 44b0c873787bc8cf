#include "Status.h"

#include "sdk/JsonUtils.h"

#include <Poco/DateTimeFormatter.h>
#include <Poco/Format.h>
#include <Poco/Timestamp.h>

#include <unistd.h>

#include <algorithm>

namespace Agent {

namespace {

std::string Time(std::int64_t seconds) {
    return Poco::DateTimeFormatter::format(Poco::Timestamp::fromEpochTime(seconds),
                                           "%Y-%m-%dT%H:%M:%SZ");
}

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

std::string PolicyLine(const Json::Value& policy) {
    return Poco::format("%-26s%-10s%12s  %s  %s\n", policy["feature"].asString(),
                        std::string(policy.isMember("refused") ? "refused" : "in force"),
                        Number(policy["generation"]), Printable(policy["hash"].asString()),
                        policy["since"].asString());
}

}  // namespace

void Status::TakePolicy(const std::string& feature, const std::string& path,
                        const std::string& text, std::int64_t nowS) {
    Json::Value document;
    SDK::JsonUtils::ParseJsonStr(text.c_str(), text.length(), document);
    Policy& policy = m_policies[feature];
    policy.m_path = path;
    policy.m_hash = SDK::JsonUtils::GetStringValue(document, "hash", "");
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

std::vector<std::string> Status::Reasons() const {
    std::vector<std::string> reasons = m_stuck;
    bool inForce = false;
    for (const auto& [feature, policy] : m_policies) {
        inForce = inForce || policy.m_generation > 0;
        if (!policy.m_refusal.empty()) {
            reasons.push_back(Poco::format("Policy(%s) is refused: %s", feature, policy.m_refusal));
        }
    }
    if (!inForce) {
        reasons.emplace_back("No policy is in force, nothing is detected");
    }
    return reasons;
}

Json::Value Status::Document(const std::vector<Framework::Engine::TaskStatus>& tasks) const {
    Json::Value document;
    const std::vector<std::string> reasons = Reasons();
    document["version"] = VMESCAPE_VERSION;
    document["pid"] = ::getpid();
    document["started"] = Time(m_startedS);
    document["state"] = reasons.empty() ? "up" : "degraded";
    document["reasons"] = Json::arrayValue;
    for (const std::string& reason : reasons) {
        document["reasons"].append(reason);
    }
    for (const Framework::Engine::TaskStatus& task : tasks) {
        const bool stuck = std::any_of(m_stuck.begin(), m_stuck.end(), [&](const auto& line) {
            return line.find('(' + task.m_name + ')') != std::string::npos;
        });
        Json::Value& entry = document["tasks"].append(Json::objectValue);
        entry["name"] = task.m_name;
        entry["feature"] = task.m_feature;
        entry["state"] = stuck ? "down" : "up";
        entry["waiting"] = task.m_inboxDepth;
        entry["capacity"] = task.m_inboxCapacity;
        entry["received"] = Json::UInt64{task.m_messagesAccepted};
        entry["lost"] = Json::UInt64{task.m_messagesLost};
    }
    for (const auto& [feature, policy] : m_policies) {
        Json::Value& entry = document["policies"].append(Json::objectValue);
        entry["feature"] = feature;
        entry["file"] = policy.m_path;
        entry["generation"] = policy.m_generation;
        entry["hash"] = policy.m_hash;
        entry["since"] = policy.m_generation > 0 ? Time(policy.m_sinceS) : "";
        if (!policy.m_refusal.empty()) {
            entry["refused"] = policy.m_refusal;
        }
    }
    return document;
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
    return text;
}

}  // namespace Agent
