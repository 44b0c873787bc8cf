#pragma once

#include "framework/Policy.h"
#include "framework/Task.h"
#include "sdk/JsonUtils.h"
#include "sdk/Log.h"

#include <Poco/Logger.h>
#include <json/value.h>

#include <exception>
#include <functional>
#include <memory>
#include <string>

namespace Engine {

/// What the feature policies of the three detections have in common: a list of rules, lists of
/// texts in them, and a part that concerns the task.
///
/// Threads: parsed by the thread that delivers policies, before any task sees it; read-only after.
class DetectPolicy : public Framework::FeaturePolicy {
public:
    ~DetectPolicy() override;

protected:
    /// @param name  the feature's name
    explicit DetectPolicy(const std::string& name);

    /// Runs a parser; a log line that cannot be written refuses what it was about.
    template <typename Parser>
    static bool FalseOnException(Parser parse) {
        try {
            return parse();
        } catch (const std::exception&) {
            return false;
        }
    }

    /// Hands each rule of a list, as JSON text, to a parser, 50 at the most.
    /// @param refused    logged, with the index, for each rule that the parser refuses
    /// @param limitLine  logged once, with index and limit, when there are more
    /// @return true when the parser accepted at least one
    bool ReadRules(const Json::Value& rules, const SDK::LogText& refused,
                   const SDK::LogText& limitLine,
                   const std::function<bool(const std::string&)>& parseRule) const;

    /// Hands each element of a list, as a text, to a function, 100 at the most. Numbers and the
    /// like are converted.
    /// @param limitLine  logged once, with index and limit, when there are more
    /// @return false, after the elements before it, for an element that no text can be made of
    bool ReadTexts(const Json::Value& list, const SDK::LogText& limitLine,
                   const std::function<void(const std::string&)>& take) const;

    /// Adds the policy of the task of this name, made from the text under that name. The run
    /// condition does not decide about the feature: it is not looked at whether it parsed.
    template <typename TaskPolicyT>
    void AddTaskPolicy(const Json::Value& content, const std::string& taskName) {
        auto taskPolicy = std::make_unique<TaskPolicyT>(taskName);
        taskPolicy->m_featureName = taskName;
        taskPolicy->Parse(SDK::JsonUtils::GetStringValue(content, taskName.c_str(), ""));
        Add(taskPolicy.release());
    }

    Poco::Logger* const m_logger;
};

/// The policy that a task works by, as the class it should be.
/// @param missing  logged when the task has none
/// @return null without a policy, and for one of another class
template <typename PolicyT>
std::shared_ptr<const PolicyT> GetDetectPolicy(Framework::Task& task, Poco::Logger* logger,
                                               const SDK::LogText& missing) {
    const std::shared_ptr<Framework::FeaturePolicy> policy = task.GetFeaturePolicy();
    if (policy == nullptr) {
        SDK::LogError(logger, missing);
    }
    return std::dynamic_pointer_cast<const PolicyT>(policy);
}

}  // namespace Engine
