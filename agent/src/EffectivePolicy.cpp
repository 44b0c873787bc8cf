#include "EffectivePolicy.h"

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

}  // namespace Agent
