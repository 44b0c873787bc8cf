#pragma once

#include "DetectTaskPolicy.h"

#include <string>

namespace Engine {

/// The part of the command detection's policy that concerns its task.
class QemuCmdDetectTaskPolicy : public DetectTaskPolicy {
public:
    explicit QemuCmdDetectTaskPolicy(const std::string& name) : DetectTaskPolicy(name) {}
};

}  // namespace Engine
