#pragma once

#include <memory>
#include <string>
#include <vector>

namespace Framework {

/// A piece of configuration that was delivered as text.
///
/// Threads: written by the thread that delivers policies, before any task sees it; read-only after.
class Policy {
public:
    /// @param name  the feature's name, or for a task policy the task's
    explicit Policy(const std::string& name);
    virtual ~Policy();
    Policy(const Policy&) = delete;
    Policy& operator=(const Policy&) = delete;

    /// Reads the text. @return false when it is refused
    virtual bool Parse(const std::string& content);

    /// Brings the policy into force. Nothing to do for a policy that has no receiver.
    /// @param root  the feature policy at the top of the tree that is dispatched
    virtual void Dispatch(Policy* root);

    /// Whether a newly delivered text with this hash differs from this policy.
    virtual bool PolicyChanged(const std::string& hash, const std::string& content);

    std::string m_featureName;
    bool m_replaced = false;  ///< a newer text for the feature has been handled

protected:
    int m_attribute = 0;  ///< kept for the policy's own class; the framework does not interpret it
};

/// A policy made of others, which it owns.
class CompositePolicy : public Policy {
public:
    explicit CompositePolicy(const std::string& name);
    ~CompositePolicy() override;

    /// Takes a child. An earlier child of the same name is destroyed: the newest counts. Null is
    /// ignored.
    void Add(Policy* child);

    /// Dispatches every child, in the order in which they were added.
    void Dispatch(Policy* root) override;

    /// The child of that name, or null. Owned by this policy.
    Policy* Find(const std::string& name) const;

private:
    std::vector<std::unique_ptr<Policy>> m_children;
};

/// All that is configured for one feature. The engine holds the one in force; tasks share it.
class FeaturePolicy : public CompositePolicy, public std::enable_shared_from_this<FeaturePolicy> {
public:
    explicit FeaturePolicy(const std::string& featureName);
    ~FeaturePolicy() override;

    /// Dispatches the task policies below it, which attach this policy to their tasks.
    void Dispatch(Policy* root) override;

    /// True when hash or text differ from this policy's.
    bool PolicyChanged(const std::string& hash, const std::string& content) override;

    std::string m_content;  ///< the text it was parsed from; set by the engine
    std::string m_hash;     ///< the sender's hash of the text; not interpreted
    bool m_enabled = true;
};

/// The part of a feature policy that concerns one task.
class TaskPolicy : public Policy {
public:
    explicit TaskPolicy(const std::string& taskName);
    ~TaskPolicy() override;

    /// Attaches the feature policy to the registered task of this policy's name, if there is one.
    void Dispatch(Policy* root) override;

    /// Keeps a run condition: the empty text or a JSON object.
    /// @return false, and nothing changes, for any other text
    bool ParseCondition(const std::string& condition);

    const std::string& GetCondition() const { return m_condition; }

private:
    std::string m_condition;
};

}  // namespace Framework
