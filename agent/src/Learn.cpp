#include "Learn.h"

#include "Duration.h"
#include "FileTrust.h"
#include "JsonFile.h"
#include "LoadSettings.h"
#include "PolicyChecker.h"
#include "sdk/JsonUtils.h"
#include "sdk/TimeUtils.h"

#include <Poco/DateTimeFormatter.h>
#include <Poco/Format.h>
#include <Poco/Timestamp.h>

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <set>
#include <system_error>
#include <utility>

namespace Agent {

namespace {

using std::chrono::seconds;

// A hundred large directories take their time until they are watched.
constexpr seconds kStartPatience(600);

constexpr seconds kAskPeriod(10);
constexpr seconds kShowPeriod(1);

std::string Now() {
    return Poco::DateTimeFormatter::format(
        Poco::Timestamp::fromEpochTime(SDK::TimeUtils::GetCurrentTimestampS()),
        "%Y-%m-%dT%H:%M:%SZ");
}

std::string FileOf(const PolicyShape& shape) { return std::string(shape.m_feature) + ".json"; }

bool AnyExists(const std::vector<std::string>& directories) {
    return std::any_of(directories.begin(), directories.end(), [](const std::string& directory) {
        std::error_code ignored;
        return std::filesystem::is_directory(directory, ignored);
    });
}

}  // namespace

Learn::Learn(const Options& options)
    : m_options(options),
      m_terminal(::isatty(STDERR_FILENO) == 1),
      m_drafts(options.m_into),
      m_scratch("learn"),
      m_learned([](const std::string& name, const std::string& commandLine) {
          return CommandEntry::Choose(name, commandLine);
      }) {}

int Learn::Run() {
    if (const int code = LoadSettings(m_options, m_settings); code != EXIT_GOOD) {
        return code;
    }
    if (const int code = ReadPolicies(); code != EXIT_GOOD) {
        return code;
    }
    if (!PrepareFolder()) {
        return EXIT_USAGE;
    }
    if (const int code = StartAgents(); code != EXIT_GOOD) {
        return code;
    }
    Listen();
    StopAgents();
    return Finish();
}

int Learn::ReadPolicies() {
    const std::string folder = m_settings.Get("policies");
    for (const PolicyShape& shape : PolicyShape::All()) {
        const std::string path = folder + '/' + FileOf(shape);
        std::error_code ignored;
        if (!std::filesystem::exists(path, ignored)) {
            continue;
        }
        if (const int code = ReadPolicy(shape, path); code != EXIT_GOOD) {
            return code;
        }
    }
    if (m_learned.Empty()) {
        Say("there is no policy in " + folder +
            ", expected one that names the programs and directories to learn for; --policies "
            "names another folder");
        return EXIT_BAD_INPUT;
    }
    return EXIT_GOOD;
}

int Learn::ReadPolicy(const PolicyShape& shape, const std::string& path) {
    std::vector<Problem> problems = PolicyChecker::CheckFile(path);
    for (const Problem& problem : problems) {
        Say(ToText(problem));
    }
    std::string text;
    Json::Value policy;
    if (HasErrors(problems) || !ReadWholeFile(path, text, problems) ||
        !ParseObject(path, text, policy, problems)) {
        return EXIT_BAD_INPUT;
    }
    m_learned.Add(shape, policy);
    return EXIT_GOOD;
}

bool Learn::PrepareFolder() const {
    Settings configured;
    configured.LoadConfiguration(m_options.m_config);
    std::vector<std::string> files;
    for (const auto& [file, text] : m_learned.AllowingNothing()) {
        files.push_back(file);
    }
    const std::string wrong =
        m_drafts.Prepare({configured.Get("policies"), m_settings.Get("policies")}, files);
    if (!wrong.empty()) {
        Say("--into: " + wrong);
    }
    return wrong.empty();
}

int Learn::StartAgents() {
    // First the one that tells what cannot be allowed: it must know of all that the other sees.
    const LearnedPolicies::PolicyTexts forbidding = m_learned.ForbiddingNothing();
    if (!forbidding.empty()) {
        const int code = StartAgent("inevitable", forbidding, [this](const Json::Value& alarm) {
            return m_learned.TakeInevitable(alarm);
        });
        if (code != EXIT_GOOD) {
            return code;
        }
    }
    return StartAgent("forbidden", m_learned.AllowingNothing(),
                      [this](const Json::Value& alarm) { return m_learned.TakeForbidden(alarm); });
}

int Learn::StartAgent(const std::string& name, const LearnedPolicies::PolicyTexts& texts,
                      AlarmListener::Take take) {
    ChildAgent::Setup setup;
    setup.m_program = ChildAgent::OwnProgram();
    setup.m_policies = m_scratch.MakeFolder(name);
    setup.m_policyCount = static_cast<int>(texts.size());
    setup.m_status = m_scratch.Path() + '/' + name + ".sock";
    setup.m_directories = false;
    for (const auto& [file, text] : texts) {
        m_scratch.Write(Poco::format("%s/%s", name, file), text);
        const PolicyShape* shape = PolicyShape::Find(PolicyChecker::FeatureOf(file));
        setup.m_directories = setup.m_directories ||
                              (shape->Watched() != nullptr && AnyExists(m_learned.Directories()));
    }
    if (!m_options.m_config.empty()) {
        setup.m_arguments = {"--config", m_options.m_config};
    }
    if (m_settings.Has("modules")) {
        setup.m_arguments.insert(setup.m_arguments.end(), {"--modules", m_settings.Get("modules")});
    }
    m_agents.insert(m_agents.begin(), std::make_unique<AlarmListener>(setup, std::move(take)));
    std::string wrong;
    const int code = m_agents.front()->WaitUntilItWatches(kStartPatience, wrong,
                                                          [this] { TakeWhatOthersTell(); });
    if (!wrong.empty()) {
        Say(wrong + ", nothing was learned");
    }
    return code;
}

/// What nobody reads holds an agent up, and is lost in the end: a pipe has room for little, and the
/// next one may take its time to start.
void Learn::TakeWhatOthersTell() {
    std::for_each(std::next(m_agents.begin()), m_agents.end(),
                  [](const std::unique_ptr<AlarmListener>& agent) { agent->TakeWhatCame(); });
}

void Learn::Listen() {
    const Clock::time_point begin = Clock::now();
    const Clock::time_point end = begin + m_options.m_for;
    m_report.m_from = Now();
    Clock::time_point nextAsk = begin + kAskPeriod;
    Say("learning for " + Agent::ToText(m_options.m_for) + "; an interruption ends it early");
    while (Clock::now() < end && !Interruption::Came() && TakeWhatCame()) {
        if (Clock::now() >= nextAsk) {
            for (const std::unique_ptr<AlarmListener>& agent : m_agents) {
                agent->AskHowItIs();
            }
            nextAsk = Clock::now() + kAskPeriod;
        }
        ShowProgress(end - Clock::now());
        WaitUntil(std::min(end, Clock::now() + kShowPeriod));
    }
    if (m_terminal) {
        std::cerr << "\r\x1b[K";
    }
    m_report.m_to = Now();
    m_report.m_watched = std::chrono::round<seconds>(Clock::now() - begin);
    m_report.m_interrupted = Interruption::Came() && Clock::now() < end;
}

/// @return whether all agents still run
bool Learn::TakeWhatCame() {
    bool running = true;
    for (const std::unique_ptr<AlarmListener>& agent : m_agents) {
        agent->TakeWhatCame();
        running = !agent->HasEnded() && running;
    }
    return running;
}

/// Comes back earlier when an agent has written something.
void Learn::WaitUntil(Clock::time_point time) {
    std::vector<pollfd> waited;
    for (const std::unique_ptr<AlarmListener>& agent : m_agents) {
        agent->AddDescriptors(waited);
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(time - Clock::now());
    ::poll(waited.data(), waited.size(), static_cast<int>(std::max<long>(0, left.count())));
}

void Learn::ShowProgress(Clock::duration left) {
    if (!m_terminal) {
        return;
    }
    std::string text;
    for (const PolicyShape& shape : PolicyShape::All()) {
        text += Poco::format(
            ", %lu %s", static_cast<unsigned long>(m_learned.Count(std::string(shape.m_feature))),
            std::string(shape.List().m_noun));
    }
    std::cerr << "\r\x1b[Kvmescape-agent: learn: "
              << Agent::ToText(std::chrono::ceil<seconds>(left)) << " left" << text << std::flush;
}

void Learn::StopAgents() {
    std::set<std::string> missed;
    for (const std::unique_ptr<AlarmListener>& agent : m_agents) {
        if (!agent->HasEnded()) {
            agent->AskHowItIs();
            agent->Stop();
        }
        missed.merge(agent->Missed());
    }
    if (m_learned.NotKept() > 0) {
        missed.insert(Poco::format("%s alarms told of more than %lu different things",
                                   std::to_string(m_learned.NotKept()),
                                   static_cast<unsigned long>(LearnedPolicies::MAX_KEPT)));
    }
    m_report.m_missed.assign(missed.begin(), missed.end());
    m_agents.clear();
}

int Learn::Finish() {
    m_report.m_folder = m_options.m_into;
    m_report.m_inForce = m_settings.Get("policies");
    m_report.m_result = m_learned.Make("learned " + m_report.m_from + " to " + m_report.m_to);
    WritePolicies(m_report);
    std::cout << (m_options.m_json ? SDK::JsonUtils::JsonToString(m_report.ToJson()) + '\n'
                                   : m_report.ToText())
              << std::flush;
    return m_report.ExitStatus();
}

void Learn::WritePolicies(LearnReport& report) const {
    for (const auto& [feature, policy] : report.m_result.m_policies) {
        const std::string file = feature + ".json";
        const std::string text = LearnedPolicies::ToText(policy);
        const std::vector<Problem> problems = PolicyChecker::Check(m_drafts.PathOf(file), text);
        for (const Problem& problem : problems) {
            Say(ToText(problem));
        }
        const std::string wrong =
            HasErrors(problems) ? FirstError(problems) : m_drafts.Write(file, text);
        if (!wrong.empty()) {
            Say(wrong);
            continue;
        }
        report.m_files.push_back(m_drafts.PathOf(file));
        if (const std::string untrusted = FileTrust::WhyNot(m_drafts.PathOf(file));
            !untrusted.empty()) {
            Say("warning: " + untrusted);
        }
    }
}

void Learn::Say(const std::string& text) const {
    std::cerr << "vmescape-agent: learn: " << text << '\n';
}

}  // namespace Agent
