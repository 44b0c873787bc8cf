#pragma once

#include "Problem.h"

#include <string>
#include <vector>

namespace Agent {

/// Tells what is wrong with a feature policy before it is used.
///
/// It is stricter than the module, which skips a wrong rule and goes on with the others: what the
/// module would skip is an error here, and what it would ignore is a warning.
class PolicyChecker {
public:
    /// The feature that a policy file configures: its name without ".json".
    static std::string FeatureOf(const std::string& path);

    /// Checks a text as the policy of the feature that its file's name tells.
    static std::vector<Problem> Check(const std::string& path, const std::string& text);

    /// Reads the file and checks it.
    static std::vector<Problem> CheckFile(const std::string& path);
};

}  // namespace Agent
