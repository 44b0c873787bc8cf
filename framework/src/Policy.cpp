#include "framework/Policy.h"

#include "FrameworkLog.h"
#include "framework/Engine.h"
#include "sdk/JsonUtils.h"

#include <json/value.h>

#include <algorithm>

namespace Framework {

Policy::Policy(const std::string& name) : m_featureName(name) {}
Policy::~Policy() = default;

bool Policy::Parse(const std::string& /*content*/) { return true; }
void Policy::Dispatch(Policy* /*root*/) {}
bool Policy::PolicyChanged(const std::string& /*hash*/, const std::string& /*content*/) {
    return false;
}

CompositePolicy::CompositePolicy(const std::string& name) : Policy(name) {}
CompositePolicy::~CompositePolicy() = default;

void CompositePolicy::Add(Policy* child) {
    if (child == nullptr) {
        return;
    }
    std::unique_ptr<Policy> owned(child);
    std::erase_if(m_children, [child](const std::unique_ptr<Policy>& other) {
        return other->m_featureName == child->m_featureName;
    });
    m_children.push_back(std::move(owned));
}

void CompositePolicy::Dispatch(Policy* root) {
    for (const std::unique_ptr<Policy>& child : m_children) {
        child->Dispatch(root);
    }
}

Policy* CompositePolicy::Find(const std::string& name) const {
    const auto found = std::find_if(
        m_children.begin(), m_children.end(),
        [&name](const std::unique_ptr<Policy>& child) { return child->m_featureName == name; });
    return found == m_children.end() ? nullptr : found->get();
}

FeaturePolicy::FeaturePolicy(const std::string& featureName) : CompositePolicy(featureName) {}
FeaturePolicy::~FeaturePolicy() = default;

void FeaturePolicy::Dispatch(Policy* root) { CompositePolicy::Dispatch(root); }

bool FeaturePolicy::PolicyChanged(const std::string& hash, const std::string& content) {
    return m_hash != hash || m_content != content;
}

TaskPolicy::TaskPolicy(const std::string& taskName) : Policy(taskName) {}
TaskPolicy::~TaskPolicy() = default;

void TaskPolicy::Dispatch(Policy* root) {
    auto* feature = dynamic_cast<FeaturePolicy*>(root);
    Engine* engine = Engine::Current();
    Task* task = engine == nullptr ? nullptr : engine->FindTask(m_featureName);
    if (feature != nullptr && task != nullptr) {
        task->AttachFeaturePolicy(feature->shared_from_this());
    }
}

bool TaskPolicy::ParseCondition(const std::string& condition) {
    Json::Value value;
    std::string error;
    if (!condition.empty()) {
        SDK::JsonUtils::ParseJsonStr(condition.c_str(), condition.length(), value, error);
    }
    if (!condition.empty() && !value.isObject()) {
        SDK::LogError(Logger(), "The run condition of task(%s) is refused: %s", m_featureName,
                      error.empty() ? std::string("not an object") : error);
        return false;
    }
    m_condition = condition;
    return true;
}

}  // namespace Framework
