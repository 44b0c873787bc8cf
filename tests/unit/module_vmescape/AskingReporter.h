#pragma once

#include "support/ScriptedTasks.h"

#include <functional>
#include <memory>
#include <utility>

/// Keeps the alarms, and calls a function as each one arrives.
class AskingReporter : public TestSupport::RecordingReporter {
public:
    explicit AskingReporter(std::function<void()> onArrival) : m_onArrival(std::move(onArrival)) {}
    ~AskingReporter() override = default;

    int InterceptMsg(std::shared_ptr<Framework::Message>& message) override {
        m_onArrival();
        return RecordingReporter::InterceptMsg(message);
    }

private:
    const std::function<void()> m_onArrival;
};
