#pragma once

#include "framework/Engine.h"
#include "framework/PolicyCallback.h"
#include "sdk/Mutex.h"

#include <map>
#include <memory>
#include <string>

namespace Framework {

/// The policies in force and the callbacks that make them from text.
///
/// Threads: Get on any thread; everything else one at a time.
/// Ownership: owns the callbacks; shares each policy with the tasks that use it.
class PolicyStore {
public:
    PolicyStore() = default;
    PolicyStore(const PolicyStore&) = delete;
    PolicyStore& operator=(const PolicyStore&) = delete;

    /// Takes a callback; the newest of a key counts.
    void RegisterCallback(const std::string& key, AbstractPolicyCallback* callback);

    /// Destroys the callback of a key.
    void DropCallback(const std::string& key);

    /// See Engine::DeliverPolicy.
    Engine::PolicyResult Deliver(const std::string& key, const std::string& featureName,
                                 const std::string& content);

    /// The policy in force, or null.
    std::shared_ptr<FeaturePolicy> Get(const std::string& featureName) const;

private:
    /// Asks the callback. @return the accepted policy, or null; nothing is thrown
    static std::shared_ptr<FeaturePolicy> Invoke(AbstractPolicyCallback& callback,
                                                 const std::string& featureName,
                                                 const std::string& content,
                                                 FeaturePolicy* current);
    void PutInForce(const std::string& featureName, const std::shared_ptr<FeaturePolicy>& policy);

    std::map<std::string, std::unique_ptr<AbstractPolicyCallback>> m_callbacks;

    mutable SDK::Mutex m_mutex;
    std::map<std::string, std::shared_ptr<FeaturePolicy>> m_inForce SDK_GUARDED_BY(m_mutex);
};

}  // namespace Framework
