#include "PolicyChecker.h"

#include "JsonFile.h"
#include "sdk/PathUtils.h"

#include <Poco/String.h>

#include <algorithm>
#include <array>
#include <initializer_list>
#include <set>
#include <string_view>

namespace Agent {

namespace {

constexpr const char* kModuleName = "vmescape_module";
constexpr const char* kCommandFeature = "qemu_cmd_detect_feature";
constexpr std::array<std::string_view, 3> kFeatures = {kCommandFeature, "qemu_file_detect_feature",
                                                       "qemu_port_detect_feature"};

// What the module reads at the most; the rest is ignored.
constexpr Json::ArrayIndex kMaxRules = 50;
constexpr Json::ArrayIndex kMaxCommands = 100;

enum class Need { REQUIRED, OPTIONAL };

/// Collects the problems of one file.
class Findings {
public:
    Findings(std::string file, std::vector<Problem>& problems)
        : m_file(std::move(file)), m_problems(problems) {}

    void Error(const std::string& place, const std::string& text) {
        m_problems.push_back({m_file, place, text, false});
    }
    void Warn(const std::string& place, const std::string& text) {
        m_problems.push_back({m_file, place, text, true});
    }

    void WarnOfUnknownKeys(const Json::Value& object, const std::string& place,
                           std::initializer_list<std::string_view> known) {
        for (const std::string& key : object.getMemberNames()) {
            if (std::find(known.begin(), known.end(), key) == known.end()) {
                Warn(Pointer(place, key), "unknown key");
            }
        }
    }

    /// Whether the member is there and of the type; complains when it is not but should be.
    bool Expect(const Json::Value& object, const std::string& place, const char* key,
                Json::ValueType type, const char* what, Need need) {
        if (!object.isMember(key)) {
            if (need == Need::REQUIRED) {
                Error(Pointer(place, key), std::string("expected ") + what + ", found nothing");
            }
            return false;
        }
        if (object[key].type() == type) {
            return true;
        }
        Error(Pointer(place, key),
              std::string("expected ") + what + ", found " + DescribeType(object[key]));
        return false;
    }

private:
    const std::string m_file;
    std::vector<Problem>& m_problems;
};

void CheckEnvelope(Findings& check, const Json::Value& policy) {
    check.WarnOfUnknownKeys(policy, "", {"module_name", "enabled", "hash", "content"});
    if (check.Expect(policy, "", "module_name", Json::stringValue, "\"vmescape_module\"",
                     Need::REQUIRED) &&
        policy["module_name"].asString() != kModuleName) {
        check.Error("/module_name", "expected \"vmescape_module\", found \"" +
                                        policy["module_name"].asString() + "\"");
    }
    check.Expect(policy, "", "enabled", Json::booleanValue, "a boolean", Need::OPTIONAL);
    check.Expect(policy, "", "hash", Json::stringValue, "a string", Need::OPTIONAL);
}

void CheckCommands(Findings& check, const Json::Value& commands, const std::string& place) {
    if (commands.size() > kMaxCommands) {
        check.Warn(place, "expected at most 100 commands, found " +
                              std::to_string(commands.size()) + "; the rest is ignored");
    }
    for (Json::ArrayIndex i = 0; i < commands.size(); ++i) {
        const std::string entry = Pointer(place, std::to_string(i));
        if (!commands[i].isString()) {
            check.Error(entry, "expected a non-empty string, found " + DescribeType(commands[i]));
        } else if (commands[i].asString().empty()) {
            check.Warn(entry, "an empty string names no command");
        }
    }
}

void CheckRule(Findings& check, const Json::Value& rule, const std::string& place,
               std::set<std::string>& seen) {
    if (!rule.isObject()) {
        check.Error(place, "expected an object, found " + DescribeType(rule));
        return;
    }
    check.WarnOfUnknownKeys(rule, place, {"virtcmd", "action", "cmdlist"});
    if (check.Expect(rule, place, "virtcmd", Json::stringValue, "a non-empty string",
                     Need::REQUIRED)) {
        const std::string name = rule["virtcmd"].asString();
        if (name.empty()) {
            check.Error(place + "/virtcmd", "expected a non-empty string, found an empty string");
        } else if (!seen.insert(name).second) {
            check.Warn(place + "/virtcmd",
                       "\"" + name + "\" has a rule already; this one is ignored");
        }
        if (name.find('/') != std::string::npos) {
            check.Warn(place + "/virtcmd", "\"" + name +
                                               "\" is a path; processes are known by name, "
                                               "it will never match");
        }
    }
    check.Expect(rule, place, "action", Json::booleanValue,
                 "a boolean (true: allow list, false: deny list)", Need::OPTIONAL);
    if (check.Expect(rule, place, "cmdlist", Json::arrayValue, "a list of strings",
                     Need::REQUIRED)) {
        CheckCommands(check, rule["cmdlist"], place + "/cmdlist");
    }
}

void CheckCommandFeature(Findings& check, const Json::Value& policy) {
    if (!check.Expect(policy, "", "content", Json::objectValue, "an object", Need::REQUIRED)) {
        return;
    }
    const Json::Value& content = policy["content"];
    check.WarnOfUnknownKeys(content, "/content", {"monitor_list", "qemu_cmd_detect_task"});
    check.Expect(content, "/content", "qemu_cmd_detect_task", Json::stringValue, "a string",
                 Need::OPTIONAL);
    if (!check.Expect(content, "/content", "monitor_list", Json::arrayValue,
                      "a list of at least one rule", Need::REQUIRED)) {
        return;
    }
    const Json::Value& rules = content["monitor_list"];
    const std::string place = "/content/monitor_list";
    if (rules.empty()) {
        check.Error(place, "expected a list of at least one rule, found an empty list");
    }
    if (rules.size() > kMaxRules) {
        check.Warn(place, "expected at most 50 rules, found " + std::to_string(rules.size()) +
                              "; the rest is ignored");
    }
    std::set<std::string> seen;
    for (Json::ArrayIndex i = 0; i < rules.size(); ++i) {
        CheckRule(check, rules[i], Pointer(place, std::to_string(i)), seen);
    }
}

}  // namespace

std::string PolicyChecker::FeatureOf(const std::string& path) {
    const std::string name = SDK::PathUtils::GetFileNameFromPath(path);
    const std::string ending = ".json";
    const bool ends = name.size() > ending.size() &&
                      name.compare(name.size() - ending.size(), ending.size(), ending) == 0;
    return ends ? name.substr(0, name.size() - ending.size()) : name;
}

std::vector<Problem> PolicyChecker::Check(const std::string& path, const std::string& text) {
    std::vector<Problem> problems;
    Json::Value policy;
    if (!ParseObject(path, text, policy, problems)) {
        return problems;
    }
    Findings check(path, problems);
    const std::string feature = FeatureOf(path);
    if (std::find(kFeatures.begin(), kFeatures.end(), feature) == kFeatures.end()) {
        check.Error("",
                    "expected the file name of a feature (qemu_cmd_detect_feature.json, "
                    "qemu_file_detect_feature.json or qemu_port_detect_feature.json)");
        return problems;
    }
    CheckEnvelope(check, policy);
    if (feature == kCommandFeature) {
        CheckCommandFeature(check, policy);
    } else {
        check.Warn("", "this version has no detection for the feature; the policy is refused");
    }
    return problems;
}

std::vector<Problem> PolicyChecker::CheckFile(const std::string& path) {
    std::vector<Problem> problems;
    std::string text;
    return ReadWholeFile(path, text, problems) ? Check(path, text) : problems;
}

}  // namespace Agent
