#include "EffectivePolicy.h"

#include "Shown.h"
#include "sdk/JsonUtils.h"

#include <algorithm>
#include <set>

namespace Agent {

namespace {

using Kind = PolicyField::Kind;

/// The strings of a list of an object, as far as they count.
std::vector<std::string> ReadTexts(const Json::Value& object, const PolicyShape::Fields& fields,
                                   std::size_t& ignored) {
    std::vector<std::string> texts;
    const PolicyField* field = PolicyShape::Find(fields, Kind::TEXTS);
    Json::Value list;
    if (field == nullptr || !SDK::JsonUtils::GetArrayValue(object, field->m_key, list)) {
        return texts;
    }
    const std::size_t counting = std::min<std::size_t>(list.size(), PolicyShape::MAX_TEXTS);
    for (std::size_t i = 0; i < counting; ++i) {
        texts.push_back(list[static_cast<Json::ArrayIndex>(i)].asString());
    }
    ignored += list.size() - counting;
    return texts;
}

/// Whether lists are allow lists, which they are unless something is said.
bool ReadAction(const Json::Value& object, const PolicyShape::Fields& fields, bool otherwise) {
    const PolicyField* field = PolicyShape::Find(fields, Kind::ACTION);
    return field == nullptr ? otherwise
                            : SDK::JsonUtils::GetBoolValue(object, field->m_key, otherwise);
}

/// A member of a kind that each policy has.
Json::Value Member(const Json::Value& object, const PolicyShape::Fields& fields, Kind kind) {
    const PolicyField* field = PolicyShape::Find(fields, kind);
    return object.isObject() && field != nullptr ? object[field->m_key] : Json::Value();
}

// A command line is known to its 4096th byte, and no path is longer (PATH_MAX).
constexpr std::size_t kMaxTextLength = 4096;

Json::Value ToList(const std::vector<std::string>& texts) {
    Json::Value list = Json::arrayValue;
    for (const std::string& text : texts) {
        list.append(Shorten(text, kMaxTextLength));
    }
    return list;
}

}  // namespace

EffectivePolicy::EffectivePolicy(const PolicyShape& shape, const std::string& text)
    : m_shape(&shape) {
    Json::Value policy;
    SDK::JsonUtils::ParseJsonStr(text.c_str(), text.length(), policy);
    m_enabled = SDK::JsonUtils::GetBoolValue(policy, "enabled", true);
    m_hash = SDK::JsonUtils::GetStringValue(policy, "hash", "");
    const Json::Value content = Member(policy, PolicyShape::Envelope(), Kind::CONTENT);
    m_watched = ReadTexts(content, shape.m_content, m_ignored.m_texts);
    const bool allowLists = ReadAction(content, shape.m_content, true);
    const Json::Value rules = Member(content, shape.m_content, Kind::RULES);
    std::set<std::string> programs;
    for (Json::ArrayIndex i = 0; i < rules.size(); ++i) {
        const std::string program = Member(rules[i], shape.m_rule, Kind::PROGRAM).asString();
        // The module counts those that it ignores, too, when it looks at the limit.
        if (i >= PolicyShape::MAX_RULES || !programs.insert(program).second) {
            ++m_ignored.m_rules;
            continue;
        }
        m_rules.push_back({program, ReadAction(rules[i], shape.m_rule, allowLists),
                           ReadTexts(rules[i], shape.m_rule, m_ignored.m_texts)});
    }
}

Json::Value EffectivePolicy::ToJson() const {
    Json::Value entry;
    entry["feature"] = m_shape->m_feature;
    entry["detection"] = m_shape->m_detection;
    entry["enabled"] = m_enabled;
    entry["hash"] = Shorten(m_hash);
    if (PolicyShape::Find(m_shape->m_content, Kind::TEXTS) != nullptr) {
        entry["directories"] = ToList(m_watched);
    }
    entry["rules"] = Json::arrayValue;
    for (const Rule& rule : m_rules) {
        Json::Value& shown = entry["rules"].append(Json::objectValue);
        shown["program"] = Shorten(rule.m_program, kMaxTextLength);
        shown["list"] = rule.m_allowList ? "allow" : "deny";
        shown["entries"] = ToList(rule.m_texts);
    }
    entry["ignored"]["rules"] = Json::UInt64{m_ignored.m_rules};
    entry["ignored"]["entries"] = Json::UInt64{m_ignored.m_texts};
    return entry;
}

}  // namespace Agent
