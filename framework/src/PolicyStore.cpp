#include "PolicyStore.h"

#include "FrameworkLog.h"
#include "sdk/JsonUtils.h"

#include <json/value.h>

#include <exception>

namespace Framework {

namespace {

/// The hash that the sender put beside the content; empty when there is none.
std::string ReadHash(const std::string& content) {
    Json::Value value;
    SDK::JsonUtils::ParseJsonStr(content.c_str(), content.length(), value);
    return SDK::JsonUtils::GetStringValue(value, "hash", "");
}

}  // namespace

void PolicyStore::RegisterCallback(const std::string& key, AbstractPolicyCallback* callback) {
    m_callbacks[key].reset(callback);
}

void PolicyStore::DropCallback(const std::string& key) { m_callbacks.erase(key); }

Engine::PolicyResult PolicyStore::Deliver(const std::string& key, const std::string& featureName,
                                          const std::string& content) {
    const auto callback = m_callbacks.find(key);
    if (callback == m_callbacks.end()) {
        SDK::LogError(Logger(),
                      "Nobody receives policies of the key(%s), policy(name=%s) is dropped", key,
                      featureName);
        return Engine::PolicyResult::NO_RECEIVER;
    }
    const std::shared_ptr<FeaturePolicy> current = Get(featureName);
    if (current != nullptr && !current->PolicyChanged(ReadHash(content), content)) {
        SDK::LogInformation(Logger(), "The policy(name=%s) is in force already, nothing changes",
                            featureName);
        return Engine::PolicyResult::UNCHANGED;
    }
    const std::shared_ptr<FeaturePolicy> accepted =
        Invoke(*callback->second, featureName, content, current.get());
    if (accepted == nullptr) {
        SDK::LogError(Logger(), "The policy(name=%s) is refused, what was in force stays",
                      featureName);
        return Engine::PolicyResult::REFUSED;
    }
    accepted->m_content = content;
    PutInForce(featureName, accepted);
    accepted->Dispatch(accepted.get());
    return Engine::PolicyResult::ACCEPTED;
}

std::shared_ptr<FeaturePolicy> PolicyStore::Get(const std::string& featureName) const {
    const SDK::LockGuard lock(m_mutex);
    const auto found = m_inForce.find(featureName);
    return found == m_inForce.end() ? nullptr : found->second;
}

std::shared_ptr<FeaturePolicy> PolicyStore::Invoke(AbstractPolicyCallback& callback,
                                                   const std::string& featureName,
                                                   const std::string& content,
                                                   FeaturePolicy* current) {
    std::unique_ptr<Policy> result;
    try {
        Policy* currentPolicy = current;
        result.reset(callback.invoke(featureName, content, currentPolicy));
    } catch (const std::exception& exception) {
        SDK::LogError(Logger(), "The receiver of policy(name=%s) failed: %s", featureName,
                      std::string(exception.what()));
    }
    auto* feature = dynamic_cast<FeaturePolicy*>(result.get());
    if (feature == nullptr) {
        // A receiver marks the current policy before it knows the outcome; here it was not
        // replaced.
        if (current != nullptr) {
            current->m_replaced = false;
        }
        return nullptr;
    }
    std::shared_ptr<FeaturePolicy> accepted(feature);
    static_cast<void>(result.release());
    return accepted;
}

void PolicyStore::PutInForce(const std::string& featureName,
                             const std::shared_ptr<FeaturePolicy>& policy) {
    const SDK::LockGuard lock(m_mutex);
    m_inForce[featureName] = policy;
}

}  // namespace Framework
