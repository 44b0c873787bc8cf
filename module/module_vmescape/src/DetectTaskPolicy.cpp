#include "DetectTaskPolicy.h"

#include "sdk/JsonUtils.h"

#include <json/value.h>

namespace Engine {

DetectTaskPolicy::DetectTaskPolicy(const std::string& name) : Framework::TaskPolicy(name) {
    m_attribute = POLICY_ATTRIBUTE;
}

DetectTaskPolicy::~DetectTaskPolicy() = default;

bool DetectTaskPolicy::Parse(const std::string& taskPolicyText) {
    Json::Value value;
    if (SDK::JsonUtils::ParseJsonStr(taskPolicyText.c_str(), taskPolicyText.length(), value) == 0) {
        return false;
    }
    return ParseCondition(SDK::JsonUtils::GetStringValue(value, "task_condition", ""));
}

}  // namespace Engine
