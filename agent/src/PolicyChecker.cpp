#include "PolicyChecker.h"

#include "FileTrust.h"
#include "JsonFile.h"
#include "PolicyShape.h"
#include "sdk/PathUtils.h"

#include <algorithm>
#include <set>
#include <utility>

namespace Agent {

namespace {

// Neither a program's name, nor a command, nor a path can hold one: the kernel ends them there.
constexpr const char* kNoNul = "expected a string without NUL characters (\\u0000)";

bool HasNul(const std::string& text) { return text.find('\0') != std::string::npos; }

/// What a kind of value is in JSON, and how it is asked for.
struct Expected {
    Json::ValueType m_type;
    const char* m_what;
};

Expected ExpectedOf(PolicyField::Kind kind) {
    switch (kind) {
        case PolicyField::Kind::MODULE:
            return {Json::stringValue, "\"vmescape_module\""};
        case PolicyField::Kind::CONTENT:
            return {Json::objectValue, "an object"};
        case PolicyField::Kind::RULES:
            return {Json::arrayValue, "a list of at least one rule"};
        case PolicyField::Kind::PROGRAM:
            return {Json::stringValue, "a non-empty string"};
        case PolicyField::Kind::TEXTS:
            return {Json::arrayValue, "a list of strings"};
        case PolicyField::Kind::ACTION:
            return {Json::booleanValue, "a boolean (true: allow list, false: deny list)"};
        case PolicyField::Kind::FLAG:
            return {Json::booleanValue, "a boolean"};
        case PolicyField::Kind::TEXT:
            break;
    }
    return {Json::stringValue, "a string"};
}

/// Goes through one policy along the shape that it should have, and collects the problems.
class Walk {
public:
    Walk(std::string file, const PolicyShape& shape, std::vector<Problem>& problems)
        : m_file(std::move(file)), m_shape(shape), m_problems(problems) {}

    /// Checks an object at a place, and everything below it.
    void CheckObject(const Json::Value& object, const std::string& place,
                     const PolicyShape::Fields& fields) {
        WarnOfUnknownKeys(object, place, fields);
        for (const PolicyField& field : fields) {
            const std::string below = Pointer(place, field.m_key);
            if (Expect(object, below, field)) {
                CheckValue(object[field.m_key], below, field);
            }
        }
    }

private:
    void Error(const std::string& place, const std::string& text) {
        m_problems.push_back({m_file, place, text, false});
    }
    void Warn(const std::string& place, const std::string& text) {
        m_problems.push_back({m_file, place, text, true});
    }

    void WarnOfUnknownKeys(const Json::Value& object, const std::string& place,
                           const PolicyShape::Fields& fields) {
        for (const std::string& key : object.getMemberNames()) {
            if (std::none_of(fields.begin(), fields.end(),
                             [&key](const PolicyField& field) { return key == field.m_key; })) {
                Warn(Pointer(place, key), "unknown key");
            }
        }
    }

    /// Whether the key is there and of its type; complains when it is not but should be.
    bool Expect(const Json::Value& object, const std::string& place, const PolicyField& field) {
        const auto [type, what] = ExpectedOf(field.m_kind);
        if (!object.isMember(field.m_key)) {
            if (field.m_required) {
                Error(place, std::string("expected ") + what + ", found nothing");
            }
            return false;
        }
        const Json::Value& value = object[field.m_key];
        if (value.type() != type) {
            Error(place, std::string("expected ") + what + ", found " + DescribeType(value));
        }
        return value.type() == type;
    }

    void CheckValue(const Json::Value& value, const std::string& place, const PolicyField& field) {
        switch (field.m_kind) {
            case PolicyField::Kind::MODULE:
                CheckModule(value.asString(), place);
                break;
            case PolicyField::Kind::CONTENT:
                CheckObject(value, place, m_shape.m_content);
                break;
            case PolicyField::Kind::RULES:
                CheckRules(value, place);
                break;
            case PolicyField::Kind::PROGRAM:
                CheckProgram(value.asString(), place);
                break;
            case PolicyField::Kind::TEXTS:
                CheckTexts(value, place, field);
                break;
            case PolicyField::Kind::ACTION:
            case PolicyField::Kind::FLAG:
            case PolicyField::Kind::TEXT:
                break;
        }
    }

    void CheckModule(const std::string& name, const std::string& place) {
        if (name != PolicyShape::MODULE_NAME) {
            Error(place, "expected \"vmescape_module\", found \"" + name + "\"");
        }
    }

    void CheckRules(const Json::Value& rules, const std::string& place) {
        if (rules.empty()) {
            Error(place, "expected a list of at least one rule, found an empty list");
        }
        if (rules.size() > PolicyShape::MAX_RULES) {
            Warn(place, "expected at most 50 rules, found " + std::to_string(rules.size()) +
                            "; the rest is ignored");
        }
        for (Json::ArrayIndex i = 0; i < rules.size(); ++i) {
            const std::string entry = Pointer(place, std::to_string(i));
            if (rules[i].isObject()) {
                CheckObject(rules[i], entry, m_shape.m_rule);
            } else {
                Error(entry, "expected an object, found " + DescribeType(rules[i]));
            }
        }
    }

    void CheckProgram(const std::string& name, const std::string& place) {
        if (name.empty()) {
            Error(place, "expected a non-empty string, found an empty string");
        } else if (HasNul(name)) {
            Error(place, kNoNul);
        } else if (!m_programs.insert(name).second) {
            Warn(place, "\"" + name + "\" has a rule already; this one is ignored");
        }
        if (name.find('/') != std::string::npos) {
            Warn(place,
                 "\"" + name + "\" is a path; processes are known by name, it will never match");
        }
    }

    void CheckTexts(const Json::Value& texts, const std::string& place, const PolicyField& field) {
        if (texts.size() > PolicyShape::MAX_TEXTS) {
            Warn(place, std::string("expected at most 100 ") + field.m_noun + ", found " +
                            std::to_string(texts.size()) + "; the rest is ignored");
        }
        for (Json::ArrayIndex i = 0; i < texts.size(); ++i) {
            CheckText(texts[i], Pointer(place, std::to_string(i)), field.m_oddity);
        }
    }

    void CheckText(const Json::Value& text, const std::string& place, PolicyField::Oddity oddity) {
        if (!text.isString()) {
            Error(place, "expected a non-empty string, found " + DescribeType(text));
        } else if (HasNul(text.asString())) {
            Error(place, kNoNul);
        } else if (const std::string odd = oddity(text.asString()); !odd.empty()) {
            Warn(place, odd);
        }
    }

    const std::string m_file;
    const PolicyShape& m_shape;
    std::vector<Problem>& m_problems;
    std::set<std::string> m_programs;  // that have a rule
};

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
    const PolicyShape* shape = PolicyShape::Find(FeatureOf(path));
    if (shape == nullptr) {
        problems.push_back({path, "",
                            "expected the file name of a feature (qemu_cmd_detect_feature.json, "
                            "qemu_file_detect_feature.json or qemu_port_detect_feature.json)"});
        return problems;
    }
    Walk(path, *shape, problems).CheckObject(policy, "", PolicyShape::Envelope());
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
