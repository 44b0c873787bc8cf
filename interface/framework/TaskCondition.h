#pragma once

namespace Framework {

/// When a task runs.
class TaskCondition {
public:
    enum TaskType {
        RESIDENT_TASK = 4,  ///< runs from its registration until it is unregistered
    };
};

}  // namespace Framework
