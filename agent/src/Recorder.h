#pragma once

#include "sdk/Ledger.h"

#include <Poco/AutoPtr.h>

#include <memory>
#include <string>

namespace Framework {
class Engine;
}

namespace Agent {

class RecordTask;
class Settings;

/// Records what the detection is told, if the settings ask for it.
///
/// Threads: one, that of the engine's control. Ownership: owns the task that records; the engine
/// must outlive it.
class Recorder {
public:
    Recorder();
    ~Recorder();
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    /// Starts to record when the settings name a file. The collectors must have started.
    /// @return what is wrong, or ""; it is told in the status, too
    std::string Start(Framework::Engine& engine, const Settings& settings);

    /// A policy is in force now.
    /// @param text  of the policy
    void TakePolicy(const std::string& feature, const std::string& text);

    /// Ends the recording. Harmless when there is none. The collectors must still be there.
    void Stop();

private:
    std::string TryToStart(const std::string& path, int megabytes);

    Framework::Engine* m_engine = nullptr;
    std::unique_ptr<SDK::OpenLedger> m_trouble;
    Poco::AutoPtr<RecordTask> m_task;
};

}  // namespace Agent
