#include "Agent.h"

#include "AgentLog.h"
#include "JsonFile.h"
#include "LoadSettings.h"
#include "ModuleLoader.h"
#include "PolicyChecker.h"
#include "PolicyFolder.h"
#include "Privileges.h"
#include "StatusQuery.h"
#include "framework/Engine.h"
#include "framework/Message.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/JsonUtils.h"
#include "sdk/TimeUtils.h"

#include <Poco/Error.h>
#include <Poco/Exception.h>

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <iostream>
#include <utility>

namespace Agent {

namespace {

// Under which the product's policies are delivered.
constexpr const char* kPolicyKey = "10001";

// Who writes alarms.
constexpr const char* kReporter = "data_comm_report_task";

constexpr const char* kWatching = "Watching this host's virtual machines";

// How often tasks are looked at when no service manager says how often.
constexpr std::chrono::seconds kTaskLookPeriod(15);

/// Takes the signals that end the agent, or make it read its policies again, off all threads.
/// @return a descriptor that tells of them, or -1
int BlockSignals() {
    ::signal(SIGPIPE, SIG_IGN);
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        sigaddset(&set, number);
    }
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    return ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

void Complain(const std::string& text) { std::cerr << "vmescape-agent: " << text << '\n'; }

}  // namespace

Agent::Agent(Options options)
    : m_options(std::move(options)),
      m_loader(std::make_unique<ModuleLoader>()),
      m_status(SDK::TimeUtils::GetCurrentTimestampS()) {}

Agent::~Agent() {
    if (m_signals >= 0) {
        ::close(m_signals);
    }
}

int Agent::Run() {
    if (const int code = LoadSettings(m_options, m_settings); code != EXIT_GOOD) {
        return code;
    }
    StartLog(m_settings.Get("log_level"));
    if (const int code = CheckPrivileges(); code != EXIT_GOOD) {
        return code;
    }
    if (const std::string wrong = Privileges::KeepNeeded(m_settings.Get("process_collect.source"));
        !wrong.empty()) {
        SDK::LogError(Logger(), "%s", wrong);
        return EXIT_FAILED;
    }
    m_signals = BlockSignals();
    if (m_signals < 0) {
        SDK::LogError(Logger(), "Signals cannot be received: %s", Poco::Error::getMessage(errno));
        return EXIT_FAILED;
    }
    m_engine = new Framework::Engine;
    int code = StartModules();
    if (code == EXIT_GOOD) {
        code = StartRecording();
    }
    if (code == EXIT_GOOD) {
        code = StartPolicies() && Loop() ? EXIT_GOOD : EXIT_FAILED;
        LogTotals();
    }
    m_recorder.Stop();
    m_engine->StopModules();
    m_policies.reset();
    m_engine = nullptr;
    LogNotice("vmescape-agent has stopped");
    return code;
}

int Agent::CheckPrivileges() const {
    const std::vector<std::string> optional = m_settings.GetList("optional_modules");
    const bool files =
        std::find(optional.begin(), optional.end(), "filenotify_module") == optional.end();
    const std::vector<std::string> missing =
        Privileges::Missing(m_settings.Get("process_collect.source"), files);
    for (const std::string& privilege : missing) {
        Complain("missing privilege: " + privilege);
    }
    return missing.empty() ? EXIT_GOOD : EXIT_PRIVILEGE;
}

int Agent::StartModules() {
    m_settings.Export(m_engine->config());
    SDK::InnerCpuCtrlUtils::SetShare(m_settings.GetInt("cpu_share"));
    if (!LoadModules()) {
        return EXIT_FAILED;
    }
    try {
        m_engine->StartModules();
    } catch (const Poco::Exception& exception) {
        SDK::LogError(Logger(), "The modules cannot be started: %s", exception.message());
        return EXIT_FAILED;
    }
    return EXIT_GOOD;
}

int Agent::StartRecording() {
    const std::string wrong = m_recorder.Start(*m_engine, m_settings);
    if (wrong.empty()) {
        return EXIT_GOOD;
    }
    SDK::LogError(Logger(), "Nothing can be recorded: %s", wrong);
    // Who asks for a recording at the prompt wants no agent without; a service is to detect.
    return m_options.Sets("record.file") ? EXIT_FAILED : EXIT_GOOD;
}

bool Agent::LoadModules() {
    const std::vector<std::string> optional = m_settings.GetList("optional_modules");
    const std::string folder =
        m_settings.Has("modules") ? m_settings.Get("modules") : ModuleLoader::DefaultFolder();
    for (const std::string& name : ModuleLoader::ModuleNames()) {
        const bool isOptional = std::find(optional.begin(), optional.end(), name) != optional.end();
        if (m_loader->Load(*m_engine, folder, name, isOptional)) {
            continue;
        }
        if (!isOptional) {
            return false;
        }
        SDK::LogWarning(Logger(), "Module(%s) is optional, the agent goes on without it", name);
    }
    return true;
}

bool Agent::StartPolicies() {
    const std::string folder = m_settings.Get("policies");
    m_policies = std::make_unique<PolicyFolder>(
        folder,
        PolicyFolder::Receiver{
            [this](const std::string& path, const std::string& text) { DeliverPolicy(path, text); },
            [this](const std::string& path, const std::string& why) {
                m_status.RefusePolicy(PolicyChecker::FeatureOf(path), path, why);
            },
            [this](const std::string& path) {
                m_status.ForgetRefusal(PolicyChecker::FeatureOf(path));
            }});
    if (!m_policies->Start()) {
        return false;
    }
    const int policies = m_policies->ReadAll();
    if (policies == 0) {
        SDK::LogWarning(Logger(), "There is no policy in %s, nothing is detected until one comes",
                        folder);
    }
    OpenStatus();
    LogNotice("vmescape-agent %s is running, %d policies read from %s",
              std::string(VMESCAPE_VERSION), policies, folder);
    m_manager.Ready(kWatching);
    return true;
}

void Agent::DeliverPolicy(const std::string& path, const std::string& text) {
    const std::vector<Problem> problems = PolicyChecker::Check(path, text);
    for (const Problem& problem : problems) {
        SDK::Log(Logger(),
                 problem.m_warning ? Poco::Message::PRIO_WARNING : Poco::Message::PRIO_ERROR, "%s",
                 ToText(problem));
    }
    const std::string feature = PolicyChecker::FeatureOf(path);
    if (HasErrors(problems)) {
        SDK::LogError(Logger(), "Policy(%s) is refused, what was in force stays", path);
        m_status.RefusePolicy(feature, path, FirstError(problems));
        return;
    }
    using Result = Framework::Engine::PolicyResult;
    const Result result = m_engine->DeliverPolicy(kPolicyKey, feature, text);
    if (result == Result::ACCEPTED) {
        LogNotice("Policy(%s) is in force", path);
        m_status.TakePolicy(feature, path, text, SDK::TimeUtils::GetCurrentTimestampS());
        m_inventory.TakePolicy(feature, text);
        m_recorder.TakePolicy(feature, text);
    } else if (result == Result::REFUSED) {
        m_status.RefusePolicy(feature, path, "the module does not take it");
    } else if (result == Result::UNCHANGED) {
        m_status.ForgetRefusal(feature);
    }
}

bool Agent::Loop() {
    using Clock = std::chrono::steady_clock;
    using std::chrono::milliseconds;
    const milliseconds period =
        m_manager.AlivePeriod().count() > 0 ? m_manager.AlivePeriod() : kTaskLookPeriod;
    std::array<pollfd, 3> waited = {{{m_signals, POLLIN, 0},
                                     {m_policies->Descriptor(), POLLIN, 0},
                                     {m_statusServer.Descriptor(), POLLIN, 0}}};
    for (Clock::time_point nextLook = Clock::now();;) {
        if (Clock::now() >= nextLook) {
            LookAtTasks();
            nextLook = Clock::now() + period;
        }
        const milliseconds wait =
            std::max(milliseconds(0), std::chrono::ceil<milliseconds>(nextLook - Clock::now()));
        if (::poll(waited.data(), waited.size(), static_cast<int>(wait.count())) < 0 &&
            errno != EINTR) {
            SDK::LogError(Logger(), "Waiting failed: %s", Poco::Error::getMessage(errno));
            return false;
        }
        if (waited[1].revents != 0) {
            m_policies->HandleChanges();
        }
        if (waited[2].revents != 0) {
            m_statusServer.Answer([this](const std::string& request) { return Tell(request); });
        }
        signalfd_siginfo info{};
        if (::read(m_signals, &info, sizeof(info)) != static_cast<ssize_t>(sizeof(info))) {
            continue;
        }
        if (info.ssi_signo != SIGHUP) {
            LogNotice("Signal %u ends the agent", info.ssi_signo);
            m_manager.Stopping();
            return true;
        }
        Reload();
    }
}

void Agent::Reload() {
    m_policies->ReadAll();
    const int result = m_engine->DeliverMessage(
        kReporter,
        std::make_shared<Framework::DataMessage>(Framework::DataMessage::REOPEN, std::string()));
    if (result != 0) {
        SDK::LogWarning(Logger(), "Task(%s) cannot be asked to open the outputs anew(%d)",
                        std::string(kReporter), result);
    }
}

void Agent::OpenStatus() {
    const std::string path = m_settings.Get("status.socket");
    const std::string wrong = path.empty() ? "" : m_statusServer.Open(path);
    if (!wrong.empty()) {
        SDK::LogWarning(Logger(), "Nobody can ask for the status at %s: %s", path, wrong);
    }
}

std::string Agent::Tell(const std::string& request) {
    Json::Value answer;
    if (request == STATUS_REQUEST) {
        answer = m_status.Document(m_engine->GetTaskStatus(), SDK::OpenLedger::ReadAll(),
                                   m_inventory.CountMachines(Inventory::ReadProcesses(*m_engine)));
    } else if (request == LIST_REQUEST) {
        answer = m_inventory.Document(Inventory::ReadProcesses(*m_engine));
    } else {
        answer["error"] = "expected the request \"status\" or \"list\", found \"" + request + "\"";
    }
    return SDK::JsonUtils::JsonToString(answer);
}

void Agent::LookAtTasks() {
    const std::vector<std::string> stuck = m_taskWatch.Look(m_engine->GetTaskStatus());
    if (stuck.empty()) {
        m_manager.Alive();
    }
    if (!m_status.TakeStuckTasks(stuck)) {
        return;
    }
    for (const std::string& task : stuck) {
        SDK::LogError(Logger(), "%s", task);
    }
    if (stuck.empty()) {
        LogNotice("All tasks work again");
    }
    m_manager.Status(stuck.empty() ? kWatching : stuck.front());
}

void Agent::LogTotals() const {
    for (const Framework::Engine::TaskStatus& task : m_engine->GetTaskStatus()) {
        LogNotice("Task(%s): %lu messages received, %lu lost, %u waiting", task.m_name,
                  static_cast<unsigned long>(task.m_messagesAccepted),
                  static_cast<unsigned long>(task.m_messagesLost), task.m_inboxDepth);
    }
}

}  // namespace Agent
