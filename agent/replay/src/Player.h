#pragma once

#include "ModuleLoader.h"
#include "Options.h"
#include "RecordedFiles.h"
#include "RecordedProcesses.h"
#include "RecordedWatches.h"
#include "RecordingReader.h"
#include "ReplaySummary.h"
#include "ReplayedFileTask.h"
#include "ReplayedFullTask.h"
#include "ReplayedNetTask.h"
#include "ReplayedRealTask.h"
#include "Settings.h"
#include "VirtualClock.h"
#include "framework/Engine.h"

#include <Poco/AutoPtr.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Replay {

/// Plays a recording to the detection: the module and the reporter of an agent, and in place of the
/// collectors tasks that answer from the recording, in the recording's time.
///
/// Everything happens one after the other: an event is told when all threads wait, and the next
/// thing happens when they wait again. So two replays are the same.
///
/// Threads: the one that made it. One a process.
class Player {
public:
    explicit Player(const Agent::Options& options);
    ~Player();
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;

    /// Plays the recording, with a summary on standard error. @return an ExitCode
    int Run();

private:
    using Result = RecordingReader::Result;

    int Prepare();
    static void KeepToOneProcessor();
    bool ReadBeginning();
    bool StartEngine();
    bool StartPolicies();
    bool TakePolicy(const std::string& path, const std::string& text);
    void Play();
    void Apply(const Agent::RecordedEvent& event);
    void TakeSnapshot(const Agent::RecordedEvent& event);
    void TellProcess(const Agent::RecordedEvent& event);
    void Settle();
    void AwaitOutputs(std::uint64_t most);
    void CountThreads();
    void ReadBooks();
    void Stop();
    void ShowProgress();
    int Report();

    const Agent::Options& m_options;
    Agent::Settings m_settings;
    RecordingReader m_reader;
    ReplaySummary m_summary;
    Agent::RecordedEvent m_event;  // the first that is not told yet
    Result m_result = Result::EVENT;
    std::vector<RecordedProcesses::Info> m_snapshot;  // that has begun

    std::optional<RecordedFiles> m_files;
    RecordedProcesses m_processes;
    RecordedWatches m_watches;
    std::optional<VirtualClock> m_clock;
    Agent::ModuleLoader m_loader;  // outlives the engine, whose modules are its code
    Poco::AutoPtr<Framework::Engine> m_engine;
    Poco::AutoPtr<ReplayedRealTask> m_realTask = new ReplayedRealTask;
    Poco::AutoPtr<ReplayedFullTask> m_fullTask = new ReplayedFullTask(m_processes);
    Poco::AutoPtr<ReplayedNetTask> m_netTask = new ReplayedNetTask;
    Poco::AutoPtr<ReplayedFileTask> m_fileTask = new ReplayedFileTask(m_watches);
    std::uint64_t m_reported = 0;  // alarms that the reporter has been given
    std::chrono::steady_clock::time_point m_nextProgress;
};

}  // namespace Replay
