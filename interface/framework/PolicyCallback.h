#pragma once

#include "framework/Policy.h"

#include <string>

namespace Framework {

/// How the engine hands a policy text to whoever understands it.
class AbstractPolicyCallback {
public:
    AbstractPolicyCallback() = default;
    virtual ~AbstractPolicyCallback() = default;
    AbstractPolicyCallback(const AbstractPolicyCallback&) = delete;
    AbstractPolicyCallback& operator=(const AbstractPolicyCallback&) = delete;

    /// @param currentPolicy  the policy in force for the feature, or null; stays the engine's
    /// @return the new policy, owned by the caller, or null when the text is refused
    virtual Policy* invoke(const std::string& featureName, const std::string& policyContent,
                           Policy*& currentPolicy) = 0;
};

/// Binds a callback to a member function of T. The object must outlive the callback.
template <typename T>
class PolicyCallback : public AbstractPolicyCallback {
public:
    using Method = Policy* (T::*)(const std::string&, const std::string&, Policy*&);

    PolicyCallback(T* object, Method method) : m_object(object), m_method(method) {}

    Policy* invoke(const std::string& featureName, const std::string& policyContent,
                   Policy*& currentPolicy) override {
        return (m_object->*m_method)(featureName, policyContent, currentPolicy);
    }

private:
    T* const m_object;
    const Method m_method;
};

}  // namespace Framework
