#include "PolicyChecker.h"

#include "FileTrust.h"
#include "JsonFile.h"
#include "PolicyShape.h"
#include "sdk/PathUtils.h"

#include <algorithm>
#include <set>
#include <string_view>

namespace Agent {

namespace {

constexpr const char* kModuleName = "vmescape_module";

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
                           const std::vector<std::string_view>& known) {
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

// Neither a program's name, nor a command, nor a path can hold one: the kernel ends them there.
constexpr const char* kNoNul = "expected a string without NUL characters (\\u0000)";

bool HasNul(const std::string& text) { return text.find('\0') != std::string::npos; }

void CheckTexts(Findings& check, const Json::Value& object, const std::string& above,
                const PolicyShape::TextList& list) {
    if (!check.Expect(object, above, list.m_key, Json::arrayValue, "a list of strings",
                      Need::REQUIRED)) {
        return;
    }
    const Json::Value& texts = object[list.m_key];
    const std::string place = Pointer(above, list.m_key);
    if (texts.size() > PolicyShape::MAX_TEXTS) {
        check.Warn(place, std::string("expected at most 100 ") + list.m_noun + ", found " +
                              std::to_string(texts.size()) + "; the rest is ignored");
    }
    for (Json::ArrayIndex i = 0; i < texts.size(); ++i) {
        const std::string entry = Pointer(place, std::to_string(i));
        if (!texts[i].isString()) {
            check.Error(entry, "expected a non-empty string, found " + DescribeType(texts[i]));
            continue;
        }
        if (HasNul(texts[i].asString())) {
            check.Error(entry, kNoNul);
            continue;
        }
        const std::string odd = list.m_oddity(texts[i].asString());
        if (!odd.empty()) {
            check.Warn(entry, odd);
        }
    }
}

void CheckAction(Findings& check, const Json::Value& object, const std::string& place) {
    check.Expect(object, place, "action", Json::booleanValue,
                 "a boolean (true: allow list, false: deny list)", Need::OPTIONAL);
}

void CheckProgram(Findings& check, const Json::Value& rule, const std::string& above,
                  const char* key, std::set<std::string>& seen) {
    if (!check.Expect(rule, above, key, Json::stringValue, "a non-empty string", Need::REQUIRED)) {
        return;
    }
    const std::string name = rule[key].asString();
    const std::string place = Pointer(above, key);
    if (name.empty()) {
        check.Error(place, "expected a non-empty string, found an empty string");
    } else if (HasNul(name)) {
        check.Error(place, kNoNul);
    } else if (!seen.insert(name).second) {
        check.Warn(place, "\"" + name + "\" has a rule already; this one is ignored");
    }
    if (name.find('/') != std::string::npos) {
        check.Warn(place,
                   "\"" + name + "\" is a path; processes are known by name, it will never match");
    }
}

void CheckRule(Findings& check, const Json::Value& rule, const std::string& place,
               const PolicyShape& shape, std::set<std::string>& seen) {
    if (!rule.isObject()) {
        check.Error(place, "expected an object, found " + DescribeType(rule));
        return;
    }
    std::vector<std::string_view> known{shape.m_programKey, shape.m_list.m_key};
    if (shape.m_ruleAction) {
        known.emplace_back("action");
        CheckAction(check, rule, place);
    }
    check.WarnOfUnknownKeys(rule, place, known);
    CheckProgram(check, rule, place, shape.m_programKey, seen);
    CheckTexts(check, rule, place, shape.m_list);
}

void CheckRules(Findings& check, const Json::Value& content, const PolicyShape& shape) {
    if (!check.Expect(content, "/content", "monitor_list", Json::arrayValue,
                      "a list of at least one rule", Need::REQUIRED)) {
        return;
    }
    const Json::Value& rules = content["monitor_list"];
    const std::string place = "/content/monitor_list";
    if (rules.empty()) {
        check.Error(place, "expected a list of at least one rule, found an empty list");
    }
    if (rules.size() > PolicyShape::MAX_RULES) {
        check.Warn(place, "expected at most 50 rules, found " + std::to_string(rules.size()) +
                              "; the rest is ignored");
    }
    std::set<std::string> seen;
    for (Json::ArrayIndex i = 0; i < rules.size(); ++i) {
        CheckRule(check, rules[i], Pointer(place, std::to_string(i)), shape, seen);
    }
}

void CheckContent(Findings& check, const Json::Value& policy, const PolicyShape& shape) {
    if (!check.Expect(policy, "", "content", Json::objectValue, "an object", Need::REQUIRED)) {
        return;
    }
    const Json::Value& content = policy["content"];
    std::vector<std::string_view> known{"monitor_list", shape.m_taskKey};
    check.Expect(content, "/content", shape.m_taskKey, Json::stringValue, "a string",
                 Need::OPTIONAL);
    if (shape.m_contentAction) {
        known.emplace_back("action");
        CheckAction(check, content, "/content");
    }
    if (shape.m_contentList.m_key != nullptr) {
        known.emplace_back(shape.m_contentList.m_key);
        CheckTexts(check, content, "/content", shape.m_contentList);
    }
    check.WarnOfUnknownKeys(content, "/content", known);
    CheckRules(check, content, shape);
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
    const PolicyShape* shape = PolicyShape::Find(feature);
    if (shape == nullptr) {
        check.Error("",
                    "expected the file name of a feature (qemu_cmd_detect_feature.json, "
                    "qemu_file_detect_feature.json or qemu_port_detect_feature.json)");
        return problems;
    }
    CheckEnvelope(check, policy);
    CheckContent(check, policy, *shape);
    return problems;
}

std::vector<Problem> PolicyChecker::CheckFile(const std::string& path) {
    std::vector<Problem> problems;
    std::string text;
    if (!ReadWholeFile(path, text, problems)) {
        return problems;
    }
    problems = Check(path, text);
    // A draft may lie anywhere, so that the agent would not take it from there is no error yet.
    if (const std::string wrong = FileTrust::WhyNot(path); !wrong.empty()) {
        problems.push_back({path, "", "would be refused where it is: " + wrong, true});
    }
    return problems;
}

}  // namespace Agent
