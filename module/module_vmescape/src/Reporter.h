#pragma once

#include "framework/Message.h"
#include "framework/Task.h"

#include <string>

namespace Engine {

/// Hands an alarm to the reporter. Nobody is told when there is none.
/// @param task  the task that raises it
/// @param text  the alarm's document
inline void SendToReporter(Framework::Task& task, const std::string& text) {
    // Before the message: one that is made while memory runs out for its address belongs to nobody.
    const std::string reporter = "data_comm_report_task";
    task.SendDirectMsg(reporter, new Framework::DataMessage(Framework::DataMessage::ALARM, text));
}

}  // namespace Engine
