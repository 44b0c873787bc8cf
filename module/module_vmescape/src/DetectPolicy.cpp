#include "DetectPolicy.h"

#include "DetectTaskPolicy.h"
#include "VmEscapeLog.h"

namespace Engine {

namespace {

// They bound what one policy text can make the module hold.
constexpr int kMaxRules = 50;
constexpr int kMaxTexts = 100;

}  // namespace

DetectPolicy::DetectPolicy(const std::string& name)
    : Framework::FeaturePolicy(name), m_logger(GetVmEscapeLogger()) {
    m_attribute = POLICY_ATTRIBUTE;
}

DetectPolicy::~DetectPolicy() = default;

bool DetectPolicy::ReadRules(const Json::Value& rules, const SDK::LogText& refused,
                             const SDK::LogText& limitLine,
                             const std::function<bool(const std::string&)>& parseRule) const {
    bool accepted = false;
    const int size = static_cast<int>(rules.size());
    for (int i = 0; i < size; ++i) {
        if (i == kMaxRules) {
            SDK::LogError(m_logger, limitLine, i, kMaxRules);
            break;
        }
        if (parseRule(SDK::JsonUtils::JsonToString(rules[i]))) {
            accepted = true;
        } else {
            SDK::LogError(m_logger, refused, i);
        }
    }
    return accepted;
}

bool DetectPolicy::ReadTexts(const Json::Value& list, const SDK::LogText& limitLine,
                             const std::function<void(const std::string&)>& take) const {
    const int size = static_cast<int>(list.size());
    for (int i = 0; i < size; ++i) {
        if (i == kMaxTexts) {
            SDK::LogError(m_logger, limitLine, i, kMaxTexts);
            break;
        }
        // asString throws on lists and objects.
        if (!list[i].isConvertibleTo(Json::stringValue)) {
            return false;
        }
        take(list[i].asString());
    }
    return true;
}

}  // namespace Engine
