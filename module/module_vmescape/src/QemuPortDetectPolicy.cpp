#include "QemuPortDetectPolicy.h"

#include "VmEscapeLog.h"

namespace Engine {

QemuPortDetectPolicy::QemuPortDetectPolicy(const std::string& name)
    : Framework::FeaturePolicy(name), m_logger(GetVmEscapeLogger()) {}

QemuPortDetectPolicy::~QemuPortDetectPolicy() = default;

bool QemuPortDetectPolicy::Parse(const std::string& /*policyText*/) {
    SDK::LogError(m_logger, "This version has no port detection, policy(name=%s) is refused",
                  m_featureName);
    return false;
}

}  // namespace Engine
