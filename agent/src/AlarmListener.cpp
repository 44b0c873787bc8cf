#include "AlarmListener.h"

#include "StatusQuery.h"
#include "sdk/JsonUtils.h"

#include <Poco/Format.h>

#include <array>
#include <cstdint>
#include <iostream>
#include <optional>
#include <utility>

namespace Agent {

namespace {

using Clock = std::chrono::steady_clock;
using Stream = ChildProgram::Stream;

// What a detection logs instead of raising the same alarm again.
constexpr const char* kRepeated = "Repeat Alarm: ";

// What the log says of itself when it was not read fast enough.
constexpr const char* kLinesLost = " lines were lost)";

// So that neither stream is kept waiting by the other.
constexpr int kLinesAtOnce = 500;

constexpr std::size_t kLastLines = 20;

// An agent stops its tasks one after the other, each within a second, and gives its outputs two.
constexpr std::chrono::seconds kEndPatience(20);

/// "in_kernel 3, behind 1": those that are not 0.
std::string Counts(const Json::Value& lost) {
    std::string text;
    for (const std::string& reason : lost.getMemberNames()) {
        const std::uint64_t count = lost[reason].asUInt64();
        if (count > 0) {
            text += (text.empty() ? "" : ", ") + reason + ' ' + std::to_string(count);
        }
    }
    return text;
}

}  // namespace

AlarmListener::AlarmListener(const ChildAgent::Setup& setup, Take take)
    : m_take(std::move(take)), m_status(setup.m_status), m_agent(setup) {}

int AlarmListener::WaitUntilItWatches(std::chrono::seconds patience, std::string& wrong,
                                      const std::function<void()>& meanwhile) {
    const int code = m_agent.WaitUntilItWatches(patience, wrong, meanwhile);
    if (m_agent.MissesFiles()) {
        m_missed["files"] =
            "files were not learned: filenotify_module is optional, and the agent runs without it";
    }
    return code;
}

void AlarmListener::AddDescriptors(std::vector<pollfd>& waited) {
    for (const int descriptor : m_agent.Program().Descriptors()) {
        waited.push_back({descriptor, POLLIN, 0});
    }
}

void AlarmListener::TakeWhatCame() {
    // Reading one stream collects what comes on the other, so both have to be found empty.
    int taken = 1;
    while (taken > 0) {
        taken = TakeLines(Stream::OUTPUT) + TakeLines(Stream::ERRORS);
    }
}

/// @return how many there were
int AlarmListener::TakeLines(Stream stream) {
    for (int taken = 0; taken < kLinesAtOnce; ++taken) {
        const std::optional<std::string> line = m_agent.Program().ReadLine(stream, Clock::now());
        if (!line) {
            return taken;
        }
        if (stream == Stream::OUTPUT) {
            TakeAlarm(*line);
        } else {
            TakeLogLine(*line);
        }
    }
    return kLinesAtOnce;
}

void AlarmListener::TakeAlarm(const std::string& text) {
    Json::Value alarm;
    if (SDK::JsonUtils::ParseJsonStr(text.c_str(), text.length(), alarm) != 0 || !m_take(alarm)) {
        m_missed["alarm"] = "an alarm could not be understood: " + text;
    }
}

void AlarmListener::TakeLogLine(const std::string& line) {
    const std::size_t repeated = line.find(kRepeated);
    if (repeated != std::string::npos) {
        TakeAlarm(line.substr(repeated + std::char_traits<char>::length(kRepeated)));
        return;
    }
    if (line.find(kLinesLost) != std::string::npos) {
        m_missed["log"] = "lines of the agent's log were lost, which tell of repeated alarms";
    }
    m_lastLines.push_back(line);
    if (m_lastLines.size() > kLastLines) {
        m_lastLines.pop_front();
    }
}

void AlarmListener::AskHowItIs() {
    std::string answer;
    Json::Value status;
    if (const std::string wrong = QueryStatus(m_status, answer, status); !wrong.empty()) {
        m_missed["status"] = "the agent could not be asked for its losses: " + wrong;
        return;
    }
    for (const Json::Value& reason : status["reasons"]) {
        m_missed["reason " + reason.asString()] = "the agent was degraded: " + reason.asString();
    }
    NoteLosses(status);
}

void AlarmListener::NoteLosses(const Json::Value& status) {
    for (const Json::Value& book : status["books"]) {
        const std::string name = book["name"].asString();
        if (const std::string counts = Counts(book["lost"]); !counts.empty()) {
            m_missed["book " + name] = Poco::format("%s were lost: %s", name, counts);
        }
    }
    for (const Json::Value& task : status["tasks"]) {
        const std::string name = task["name"].asString();
        if (const std::uint64_t lost = task["lost"].asUInt64(); lost > 0) {
            m_missed["task " + name] =
                Poco::format("%s lost %s messages", name, std::to_string(lost));
        }
    }
}

bool AlarmListener::HasEnded() {
    const std::optional<int> status = m_agent.Program().Wait(Clock::now());
    if (!status) {
        return false;
    }
    TakeWhatCame();
    for (const std::string& line : std::exchange(m_lastLines, {})) {
        std::cerr << line << '\n';
    }
    m_missed["end"] =
        Poco::format("the agent ended before the time was over, with status %d", *status);
    return true;
}

void AlarmListener::Stop() {
    m_agent.Program().AskToEnd();
    if (!m_agent.Program().Wait(Clock::now() + kEndPatience)) {
        m_missed["end"] = "the agent did not end when it was asked to, its last alarms are missing";
    }
    TakeWhatCame();
}

std::set<std::string> AlarmListener::Missed() const {
    std::set<std::string> missed;
    for (const auto& [about, text] : m_missed) {
        missed.insert(text);
    }
    return missed;
}

}  // namespace Agent
