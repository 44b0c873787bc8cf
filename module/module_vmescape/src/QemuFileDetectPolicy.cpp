#include "QemuFileDetectPolicy.h"

#include "VmEscapeLog.h"

namespace Engine {

QemuFileDetectPolicy::QemuFileDetectPolicy(const std::string& name)
    : Framework::FeaturePolicy(name), m_logger(GetVmEscapeLogger()) {}

QemuFileDetectPolicy::~QemuFileDetectPolicy() = default;

bool QemuFileDetectPolicy::Parse(const std::string& /*policyText*/) {
    SDK::LogError(m_logger, "This version has no file access detection, policy(name=%s) is refused",
                  m_featureName);
    return false;
}

}  // namespace Engine
