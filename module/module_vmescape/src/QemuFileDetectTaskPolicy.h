#pragma once

#include "DetectTaskPolicy.h"

#include <string>

namespace Engine {

/// The part of the file detection's policy that concerns its task.
class QemuFileDetectTaskPolicy : public DetectTaskPolicy {
public:
    explicit QemuFileDetectTaskPolicy(const std::string& name) : DetectTaskPolicy(name) {}
};

}  // namespace Engine
