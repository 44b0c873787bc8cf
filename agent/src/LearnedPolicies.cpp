#include "LearnedPolicies.h"

#include "sdk/JsonUtils.h"

#include <Poco/RegularExpression.h>
#include <json/writer.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

namespace Agent {

namespace {

constexpr const char* kCommands = "qemu_cmd_detect_feature";
constexpr const char* kFiles = "qemu_file_detect_feature";
constexpr const char* kPorts = "qemu_port_detect_feature";

// Alarms carry U+FFFD in the place of bytes that are no UTF-8, and so can no policy.
constexpr std::string_view kReplaced = "\xef\xbf\xbd";

/// What one alarm tells.
struct Told {
    std::string m_feature;
    std::string m_program;
    std::string m_text;  // the command line, file or port
    std::string m_name;  // of the process that runs a command
};

/// @throws Json::Exception when it is no alarm
Told Read(const Json::Value& alarm) {
    const std::string kind = alarm["event_classid"].asString();
    const Json::Value& forensic = alarm["forensic_info"];
    const std::string program = forensic["monitor_process"].asString();
    if (kind == "vmescape_0001") {
        const Json::Value& process = alarm["process_info"][0];
        return {kCommands, program, process["process_cmdline"].asString(),
                process["process_name"].asString()};
    }
    if (kind == "vmescape_0002") {
        return {kFiles, program, alarm["file_info"][0]["file_path"].asString(), ""};
    }
    if (kind == "vmescape_0003") {
        return {kPorts, program, forensic["abnormal_port"].asString(), ""};
    }
    return {};
}

/// Numbers by their value, other texts byte by byte.
bool ComesBefore(const std::string& left, const std::string& right) {
    const auto isNumber = [](const std::string& text) {
        return text.find_first_not_of("0123456789") == std::string::npos;
    };
    if (isNumber(left) && isNumber(right) && left.size() != right.size()) {
        return left.size() < right.size();
    }
    return left < right;
}

/// Why a text cannot stand in a list of policies; "" when it can.
std::string WhyNot(const PolicyShape& shape, const std::string& text) {
    if (text.find(kReplaced) != std::string::npos) {
        return "it holds bytes that are no text in UTF-8";
    }
    return shape.List().m_oddity(text);
}

/// As many entries as a list may hold, those with the highest counts, in order.
std::vector<std::string> Choose(const std::map<std::string, std::uint64_t>& counts,
                                std::vector<std::string>& left) {
    std::vector<std::string> texts;
    texts.reserve(counts.size());
    for (const auto& [text, count] : counts) {
        texts.push_back(text);
    }
    std::stable_sort(texts.begin(), texts.end(), [&](const auto& one, const auto& other) {
        return counts.at(one) > counts.at(other);
    });
    if (texts.size() > PolicyShape::MAX_TEXTS) {
        left.assign(texts.begin() + PolicyShape::MAX_TEXTS, texts.end());
        texts.resize(PolicyShape::MAX_TEXTS);
    }
    std::sort(texts.begin(), texts.end(), ComesBefore);
    return texts;
}

}  // namespace

void LearnedPolicies::Add(const PolicyShape& shape, const Json::Value& policy) {
    Feature& feature = m_features[std::string(shape.m_feature)];
    feature.m_shape = &shape;
    const Json::Value& content = policy["content"];
    if (const PolicyField* list = shape.Watched(); list != nullptr) {
        feature.m_directories = content[list->m_key];
        feature.m_directories.resize(
            std::min<Json::ArrayIndex>(feature.m_directories.size(), PolicyShape::MAX_TEXTS));
    }
    const Json::Value& rules = content["monitor_list"];
    for (Json::ArrayIndex i = 0; i < rules.size() && i < PolicyShape::MAX_RULES; ++i) {
        feature.m_programs[rules[i][shape.Program().m_key].asString()];
    }
}

std::vector<std::string> LearnedPolicies::Directories() const {
    std::vector<std::string> directories;
    for (const auto& [name, feature] : m_features) {
        for (const Json::Value& directory : feature.m_directories) {
            directories.push_back(directory.asString());
        }
    }
    return directories;
}

LearnedPolicies::PolicyTexts LearnedPolicies::AllowingNothing() const {
    PolicyTexts texts;
    for (const auto& [name, feature] : m_features) {
        texts[name + ".json"] = SDK::JsonUtils::JsonToString(MakePolicy(feature, "learn", true));
    }
    return texts;
}

LearnedPolicies::PolicyTexts LearnedPolicies::ForbiddingNothing() const {
    PolicyTexts texts;
    for (const auto& [name, feature] : m_features) {
        if (feature.m_shape->HasActionInRule()) {
            texts[name + ".json"] =
                SDK::JsonUtils::JsonToString(MakePolicy(feature, "learn", false));
        }
    }
    return texts;
}

/// A policy whose lists are empty.
/// @param allow  whether they are allow lists
Json::Value LearnedPolicies::MakePolicy(const Feature& feature, const std::string& hash,
                                        bool allow) const {
    const PolicyShape& shape = *feature.m_shape;
    Json::Value policy;
    policy["module_name"] = "vmescape_module";
    policy["enabled"] = true;
    policy["hash"] = hash;
    Json::Value& content = policy["content"];
    if (shape.HasSharedAction()) {
        content["action"] = allow;
    }
    if (const PolicyField* list = shape.Watched(); list != nullptr) {
        content[list->m_key] = feature.m_directories;
    }
    for (const auto& [program, seen] : feature.m_programs) {
        Json::Value& rule = content["monitor_list"].append(Json::objectValue);
        rule[shape.Program().m_key] = program;
        rule[shape.List().m_key] = Json::arrayValue;
        if (shape.HasActionInRule()) {
            rule["action"] = allow;
        }
    }
    return policy;
}

bool LearnedPolicies::TakeForbidden(const Json::Value& alarm) {
    return Take(alarm, [](Seen& seen) { ++seen.m_count; });
}

bool LearnedPolicies::TakeInevitable(const Json::Value& alarm) {
    return Take(alarm, [&alarm](Seen& seen) {
        seen.m_mode = alarm["forensic_info"]["escape_mode"].asString();
    });
}

bool LearnedPolicies::Take(const Json::Value& alarm, const std::function<void(Seen&)>& note) {
    try {
        const Told told = Read(alarm);
        SeenByText* texts = FindTexts(told.m_feature, told.m_program);
        if (texts == nullptr) {
            return false;
        }
        Seen* seen = Keep(*texts, told.m_text, [&] {
            return told.m_feature == kCommands ? m_chooseEntry(told.m_name, told.m_text)
                                               : CommandEntry{told.m_text};
        });
        if (seen != nullptr) {
            note(*seen);
        }
        return true;
    } catch (const Json::Exception&) {
        return false;
    }
}

/// What was seen of a program; null when no policy has it.
LearnedPolicies::SeenByText* LearnedPolicies::FindTexts(const std::string& featureName,
                                                        const std::string& programName) {
    const auto feature = m_features.find(featureName);
    if (feature == m_features.end()) {
        return nullptr;
    }
    const auto program = feature->second.m_programs.find(programName);
    return program == feature->second.m_programs.end() ? nullptr : &program->second;
}

/// @return null when there is no room for one more
LearnedPolicies::Seen* LearnedPolicies::Keep(SeenByText& texts, const std::string& text,
                                             const std::function<CommandEntry()>& choose) {
    const auto known = texts.find(text);
    if (known != texts.end()) {
        return &known->second;
    }
    if (m_kept == MAX_KEPT) {
        ++m_notKept;
        return nullptr;
    }
    ++m_kept;
    return &texts.emplace(text, Seen{choose()}).first->second;
}

std::size_t LearnedPolicies::Count(const std::string& feature) const {
    const auto found = m_features.find(feature);
    if (found == m_features.end()) {
        return 0;
    }
    std::size_t count = 0;
    for (const auto& [program, seen] : found->second.m_programs) {
        count += seen.size();
    }
    return count;
}

LearnedPolicies::Result LearnedPolicies::Make(const std::string& hash) const {
    Result result;
    for (const auto& [name, feature] : m_features) {
        Json::Value policy = MakePolicy(feature, hash, true);
        for (Json::Value& rule : policy["content"]["monitor_list"]) {
            const std::string program = rule[feature.m_shape->Program().m_key].asString();
            FillList(feature, program, rule[feature.m_shape->List().m_key], result);
        }
        result.m_policies[name] = policy;
    }
    return result;
}

std::string LearnedPolicies::ToText(const Json::Value& policy) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "    ";
    builder["emitUTF8"] = false;
    // No blank before the colon.
    builder["enableYAMLCompatibility"] = true;
    std::string text = Json::writeString(builder, policy) + '\n';
    // Brackets behind their keys. No string holds a line end, they are written as escapes.
    static const Poco::RegularExpression opening(": \n +([\\[{])");
    opening.subst(text, ": $1", Poco::RegularExpression::RE_GLOBAL);
    return text;
}

void LearnedPolicies::FillList(const Feature& feature, const std::string& program,
                               Json::Value& list, Result& result) const {
    const PolicyShape& shape = *feature.m_shape;
    const std::string name(shape.m_feature);
    std::map<std::string, std::uint64_t> counts;
    for (const auto& [text, seen] : feature.m_programs.at(program)) {
        const std::string& entry = seen.m_entry.m_text;
        std::string why = seen.m_entry.m_why;
        if (!seen.m_mode.empty()) {
            why = "\"" + seen.m_mode + "\" is an alarm whatever is allowed";
        } else if (why.empty()) {
            why = WhyNot(shape, entry);
        }
        if (why.empty()) {
            counts[entry] += seen.m_count;
        } else {
            result.m_notAllowable.push_back({name, program, text, why});
        }
    }
    std::vector<std::string> left;
    for (const std::string& entry : Choose(counts, left)) {
        list.append(entry);
    }
    for (const std::string& entry : left) {
        result.m_noRoom.push_back({name, program, entry, "the list is full"});
    }
}

}  // namespace Agent
