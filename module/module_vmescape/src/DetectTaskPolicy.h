#pragma once

#include "framework/Policy.h"

#include <string>

namespace Engine {

/// The value that the agent expects in the attribute of every policy of this module.
inline constexpr int POLICY_ATTRIBUTE = 180;

/// What the task policies of the three detections have in common.
class DetectTaskPolicy : public Framework::TaskPolicy {
public:
    /// @param name  the task's name
    explicit DetectTaskPolicy(const std::string& name);
    ~DetectTaskPolicy() override;

    /// Reads the run condition "task_condition". The test of the text is the reverse of what one
    /// expects: only a text that is not JSON leads to a (then empty) condition. It is kept so
    /// because deployed policies rely on their condition being ignored.
    bool Parse(const std::string& taskPolicyText) override;
};

}  // namespace Engine
