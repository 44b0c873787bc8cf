#pragma once

#include "AlarmSink.h"
#include "framework/Task.h"
#include "sdk/Ledger.h"
#include "sdk/Mutex.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

namespace Engine {

/// "data_comm_report_task": hands every alarm to every sink. It never waits for one.
///
/// Threads: AddSink before the registration; Run and HandleMsg on the task's own; UnInit after that
/// one has ended.
/// Ownership: owns its sinks.
class ReportTask : public Framework::Task {
public:
    ReportTask();
    ~ReportTask() override;

    /// Adds a place where alarms go.
    void AddSink(std::unique_ptr<AlarmSink> sink);

    /// Hands over what comes. @return 0
    int Run() override;

    /// Hands over what still waits and stops the sinks after they wrote what they held. @return 0
    int UnInit() override;

    /// Gives one alarm to the sinks, or lets them open what they write to anew; a message of
    /// another kind is logged and dropped.
    /// @return 0, or -1 when it is neither
    int HandleMsg(const Framework::Message* message) override;

private:
    /// What is known of the alarms of one class.
    struct Detections {
        std::uint64_t m_alarms = 0;
        // Of names, not the names: those are as long as somebody made them.
        std::unordered_set<std::size_t> m_machineHashes;
        bool m_moreMachines = false;  // than are kept apart; logged
    };

    void CountAlarm(const std::string& document);
    bool CountMachine(Detections& detections, const std::string& machine) SDK_REQUIRES(m_mutex);
    SDK::Ledger GetLedger() const;

    std::vector<std::unique_ptr<AlarmSink>> m_sinks;
    mutable SDK::Mutex m_mutex;
    // By class. Those of the detections are there from the start, so that whoever watches the
    // numbers sees the first alarm as a change.
    std::map<std::string, Detections> m_classes SDK_GUARDED_BY(m_mutex) = {
        {"vmescape_0001", {}}, {"vmescape_0002", {}}, {"vmescape_0003", {}}};
    const SDK::OpenLedger m_books{[this] { return GetLedger(); }};
};

}  // namespace Engine
