#include "Player.h"

#include "AgentLog.h"
#include "ExitCode.h"
#include "LoadSettings.h"
#include "PolicyChecker.h"
#include "PolicyFolder.h"
#include "Privileges.h"
#include "sdk/JsonUtils.h"
#include "sdk/Ledger.h"
#include "sdk/ProcessUtils.h"

#include <Poco/DateTimeFormatter.h>
#include <Poco/Exception.h>
#include <Poco/Format.h>
#include <Poco/Timestamp.h>

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <thread>
#include <utility>

namespace Replay {

namespace {

using Agent::RecordedEvent;
using Engine::ProcsMessage;
using Kind = RecordedEvent::Kind;
using std::chrono::milliseconds;

// Under which the product's policies are delivered.
constexpr const char* kPolicyKey = "10001";

constexpr const char* kReporter = "data_comm_report_task";
constexpr const char* kPortTask = "qemu_port_detect_task";
constexpr const char* kShellsFile = "/etc/shells";

// The detection looks at the sockets every ten seconds. So long what was recorded last is judged.
constexpr std::int64_t kAfterwardsUs = 10000000;

// The detection may raise many alarms at its start, all at once. After that the replay waits for an
// output long before its queue is full.
constexpr int kOutputQueue = 100000;
constexpr std::uint64_t kMostWaiting = 1000;
constexpr milliseconds kOutputPoll(1);

constexpr milliseconds kProgressPeriod(200);

// So soon after the snapshot the first table of sockets is recorded.
constexpr std::int64_t kBeginningUs = 1000000;

/// Whether an event tells of how everything was at first.
bool IsOfBeginning(const RecordedEvent& event, std::int64_t firstUs) {
    return event.m_kind == Kind::SNAPSHOT ||
           ((event.m_kind == Kind::WATCH || event.m_kind == Kind::SOCKETS) &&
            event.m_at - firstUs < kBeginningUs);
}

void Complain(const std::string& text) { std::cerr << "vmescape-agent: " << text << '\n'; }

}  // namespace

Player::Player(const Agent::Options& options) : m_options(options) {}

Player::~Player() { Stop(); }

int Player::Run() {
    if (const int code = Prepare(); code != Agent::EXIT_GOOD) {
        return code;
    }
    if (!ReadBeginning()) {
        Complain(m_reader.Problem());
        return Agent::EXIT_BAD_INPUT;
    }
    m_clock.emplace(m_summary.m_lastUs);
    if (!StartEngine()) {
        return Agent::EXIT_FAILED;
    }
    if (!StartPolicies()) {
        return Agent::EXIT_BAD_INPUT;
    }
    Play();
    ReadBooks();
    Stop();
    return Report();
}

int Player::Prepare() {
    if (const int code = Agent::LoadSettings(m_options, m_settings); code != Agent::EXIT_GOOD) {
        return code;
    }
    // Alarms of a replay must not end up among those of the host unless somebody says so.
    for (const auto& [key, standard] :
         {std::pair("report.output", "stdout"), std::pair("report.format", "auto")}) {
        if (!m_options.Sets(key)) {
            m_settings.Set(key, standard);
        }
    }
    m_settings.Set("report.queue", std::to_string(kOutputQueue));
    Agent::StartLog(m_settings.Get("log_level"));
    if (m_reader.Open(m_options.m_recording, m_summary.m_header) != Result::EVENT) {
        Complain(m_reader.Problem());
        return Agent::EXIT_BAD_INPUT;
    }
    // A recording holds what strangers chose; no power is needed to read it.
    if (const std::string wrong = Agent::Privileges::KeepNone(); !wrong.empty()) {
        Complain(wrong);
        return Agent::EXIT_FAILED;
    }
    KeepToOneProcessor();
    return Agent::EXIT_GOOD;
}

/// As one thing happens after the other, a second processor would only have to be woken each time.
/// Measured with a million process events: 17 instead of 25 microseconds of processor time for
/// each.
void Player::KeepToOneProcessor() {
    cpu_set_t processors;
    CPU_ZERO(&processors);
    CPU_SET(static_cast<std::size_t>(std::max(::sched_getcpu(), 0)), &processors);
    // Where that is not allowed, it takes longer.
    ::sched_setaffinity(0, sizeof(processors), &processors);
}

/// Reads how everything was when the detection of the recorded host started.
bool Player::ReadBeginning() {
    bool any = false;
    while ((m_result = m_reader.Next(m_event)) == Result::EVENT) {
        m_summary.m_firstUs = std::exchange(any, true) ? m_summary.m_firstUs : m_event.m_at;
        if (!IsOfBeginning(m_event, m_summary.m_firstUs)) {
            return true;
        }
        m_summary.Count(m_event);
        if (m_event.m_kind == Kind::SNAPSHOT) {
            m_processes.Put(m_event.m_process);
        } else if (m_event.m_kind == Kind::WATCH) {
            m_watches.Add(m_event.m_path, m_event.m_realPath);
        } else {
            m_netTask->Apply(m_event);
        }
    }
    // One that was cut is good for what is in it.
    return m_result != Result::BAD && !m_reader.InSnapshot() && any;
}

bool Player::StartEngine() {
    m_files.emplace();
    if (m_summary.m_header.m_hasShells) {
        m_files->SetText(kShellsFile, m_summary.m_header.m_shells);
    }
    m_engine = new Framework::Engine;
    m_settings.Export(m_engine->config());
    SDK::ProcessUtils::SetLookup([this](int pid, SDK::ProcessUtils::procRecord& record) {
        return m_processes.Lookup(pid, record, m_clock->Now());
    });
    for (Framework::Task* task : std::initializer_list<Framework::Task*>{
             m_realTask.get(), m_fullTask.get(), m_netTask.get(), m_fileTask.get()}) {
        m_engine->RegisterTask(task, true);
    }
    const std::string folder = m_settings.Has("modules") ? m_settings.Get("modules")
                                                         : Agent::ModuleLoader::DefaultFolder();
    for (const char* name : {"data_comm_module", "vmescape_module"}) {
        if (!m_loader.Load(*m_engine, folder, name, false)) {
            return false;
        }
    }
    try {
        m_engine->StartModules();
    } catch (const Poco::Exception& exception) {
        Complain("the modules cannot be started: " + exception.message());
        return false;
    }
    CountThreads();
    return true;
}

bool Player::StartPolicies() {
    const std::string folder = m_settings.Get("policies");
    bool good = true;
    Agent::PolicyFolder policies(
        folder,
        {[&](const std::string& path, const std::string& text) {
             good = TakePolicy(path, text) && good;
         },
         [&](const std::string&, const std::string&) { good = false; }, [](const std::string&) {}});
    if (policies.ReadAll() == 0 && good) {
        Complain("there is no policy in " + folder);
        return false;
    }
    return good;
}

bool Player::TakePolicy(const std::string& path, const std::string& text) {
    const std::vector<Agent::Problem> problems = Agent::PolicyChecker::Check(path, text);
    for (const Agent::Problem& problem : problems) {
        Complain(Agent::ToText(problem));
    }
    if (Agent::HasErrors(problems)) {
        return false;
    }
    const auto result =
        m_engine->DeliverPolicy(kPolicyKey, Agent::PolicyChecker::FeatureOf(path), text);
    // One detection after the other, so that each replay is like the one before.
    CountThreads();
    if (result != Framework::Engine::PolicyResult::ACCEPTED) {
        Complain(path + ": the module does not take it");
        return false;
    }
    return true;
}

/// Waits until each task that has a thread waits for something to do.
void Player::CountThreads() {
    const auto tasks = m_engine->GetTaskStatus();
    m_clock->SetThreads(static_cast<std::size_t>(std::count_if(
        tasks.begin(), tasks.end(), [](const auto& task) { return !task.m_passive; })));
    m_clock->AwaitQuiet();
}

void Player::Play() {
    Settle();
    for (; m_result == Result::EVENT; m_result = m_reader.Next(m_event)) {
        m_clock->RunUntil(m_event.m_at);
        m_summary.Count(m_event);
        Apply(m_event);
        Settle();
        ShowProgress();
    }
    if (m_result != Result::BAD) {
        m_clock->RunUntil(m_summary.m_lastUs + kAfterwardsUs);
    }
    AwaitOutputs(0);
}

void Player::Apply(const RecordedEvent& event) {
    switch (event.m_kind) {
        case Kind::SNAPSHOT:
            TakeSnapshot(event);
            break;
        case Kind::FORK:
        case Kind::EXEC:
        case Kind::EXIT:
            TellProcess(event);
            break;
        case Kind::FILE:
            m_files->SetRegular(event.m_path, event.m_regular);
            m_fileTask->Tell(event.m_process.m_pid, event.m_mask, event.m_path);
            break;
        case Kind::SOCKETS:
            m_netTask->Apply(event);
            break;
        case Kind::WATCH:
            m_watches.Add(event.m_path, event.m_realPath);
            break;
        case Kind::UNWATCH:
        case Kind::GAP:
        case Kind::END:
            break;
    }
}

/// A snapshot in the middle stands behind a gap: what happened in it is made up for.
void Player::TakeSnapshot(const RecordedEvent& event) {
    m_snapshot.push_back(event.m_process);
    if (event.m_left > 0) {
        return;
    }
    for (const RecordedEvent& missed : m_processes.Difference(std::exchange(m_snapshot, {}))) {
        TellProcess(missed);
        Settle();
    }
}

void Player::TellProcess(const RecordedEvent& event) {
    const int pid = event.m_process.m_pid;
    if (event.m_kind == Kind::EXIT) {
        const auto info = m_processes.End(pid, m_clock->Now());
        m_realTask->Tell(ProcsMessage::EXIT, pid, info.get());
        return;
    }
    m_processes.Put(event.m_process);
    m_realTask->Tell(event.m_kind == Kind::FORK ? ProcsMessage::FORK : ProcsMessage::EXEC, pid,
                     &event.m_process);
}

/// Lets the detection handle what it was told.
void Player::Settle() {
    m_clock->AwaitQuiet();
    Framework::Task* reporter = m_engine->FindTask(kReporter);
    const std::uint64_t reported = reporter == nullptr ? 0 : reporter->GetInbox()->Accepted();
    if (std::exchange(m_reported, reported) != reported) {
        AwaitOutputs(kMostWaiting);
    }
}

/// Waits for the outputs: a live agent goes on and loses alarms, a replay has time. One that is in
/// trouble is not waited for.
void Player::AwaitOutputs(std::uint64_t most) {
    const auto behind = [most] {
        const std::vector<SDK::Ledger> ledgers = SDK::OpenLedger::ReadAll();
        return std::any_of(ledgers.begin(), ledgers.end(), [most](const SDK::Ledger& books) {
            return books.m_name == "alarms" && books.m_trouble.empty() && books.m_waiting > most;
        });
    };
    while (behind()) {
        std::this_thread::sleep_for(kOutputPoll);
    }
}

void Player::ReadBooks() {
    for (const SDK::Ledger& books : SDK::OpenLedger::ReadAll()) {
        if (books.m_name == "detections") {
            m_summary.m_alarms = books.m_kinds;
        } else if (books.m_name == "alarms") {
            m_summary.m_lostAlarms += books.Lost() + books.m_waiting;
        }
    }
    if (m_summary.m_events.count("sockets") == 0 && m_engine->FindTask(kPortTask) != nullptr) {
        m_summary.m_warnings.emplace_back("no sockets were recorded, so ports cannot be judged");
    }
    for (const std::string& directory : m_fileTask->NotRecorded()) {
        m_summary.m_warnings.push_back(
            directory +
            " was not watched when this was recorded, so accesses there cannot be judged");
    }
}

void Player::Stop() {
    if (m_engine.isNull()) {
        return;
    }
    // Whoever sleeps wakes up, and finds nothing new.
    m_netTask->Clear();
    m_clock->Release();
    m_engine->StopModules();
    for (const char* name :
         {"filenotify_task", "netproc_full_task", "procs_full_task", "procs_real_task"}) {
        m_engine->UnRegisterTask(name);
    }
    SDK::ProcessUtils::SetLookup(nullptr);
    m_engine = nullptr;
}

void Player::ShowProgress() {
    const auto now = std::chrono::steady_clock::now();
    if (now < m_nextProgress || ::isatty(STDERR_FILENO) == 0) {
        return;
    }
    m_nextProgress = now + kProgressPeriod;
    std::cerr << Poco::format("\r%3d %%  %s", static_cast<int>(m_reader.Progress() * 100),
                              Poco::DateTimeFormatter::format(Poco::Timestamp(m_summary.m_lastUs),
                                                              "%Y-%m-%d %H:%M:%S"))
              << std::flush;
}

int Player::Report() {
    if (::isatty(STDERR_FILENO) != 0) {
        std::cerr << "\r\x1b[K";
    }
    m_summary.m_whole = m_result == Result::ENDED;
    if (m_result == Result::CUT) {
        m_summary.m_warnings.push_back(m_reader.Problem());
    } else if (m_result == Result::ENDED && m_event.m_reason == "failed") {
        m_summary.m_warnings.emplace_back(
            "the recording ended early, the agent could not go on with it");
    }
    if (m_summary.m_lostAlarms > 0) {
        m_summary.m_warnings.push_back(std::to_string(m_summary.m_lostAlarms) +
                                       " alarms were not taken by an output");
    }
    if (m_result == Result::BAD) {
        Complain(m_reader.Problem());
    }
    std::cerr << (m_options.m_json ? SDK::JsonUtils::JsonToString(m_summary.ToJson()) + '\n'
                                   : m_summary.ToText())
              << std::flush;
    if (m_result == Result::BAD) {
        return Agent::EXIT_BAD_INPUT;
    }
    return m_summary.m_lostAlarms > 0 ? Agent::EXIT_FAILED : Agent::EXIT_GOOD;
}

}  // namespace Replay
