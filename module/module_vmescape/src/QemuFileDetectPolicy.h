#pragma once

#include "framework/Policy.h"

#include <Poco/Logger.h>

#include <string>

namespace Engine {

/// The policy of the file access detection, which this version does not have yet: every text is
/// refused, so that nobody takes an enabled policy for a detection that works.
class QemuFileDetectPolicy : public Framework::FeaturePolicy {
public:
    explicit QemuFileDetectPolicy(const std::string& name);
    ~QemuFileDetectPolicy() override;

    /// @return false, and says why
    bool Parse(const std::string& policyText) override;

private:
    Poco::Logger* m_logger;
};

}  // namespace Engine
