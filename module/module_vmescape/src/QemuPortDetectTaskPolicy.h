#pragma once

#include "DetectTaskPolicy.h"

#include <string>

namespace Engine {

/// The part of the port detection's policy that concerns its task.
class QemuPortDetectTaskPolicy : public DetectTaskPolicy {
public:
    explicit QemuPortDetectTaskPolicy(const std::string& name) : DetectTaskPolicy(name) {}
};

}  // namespace Engine
