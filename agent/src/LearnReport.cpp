#include "LearnReport.h"

#include "Duration.h"
#include "ExitCode.h"
#include "sdk/StrUtils.h"

#include <Poco/Format.h>

#include <map>

namespace Agent {

namespace {

using SDK::StrUtils;
using Unlisted = LearnedPolicies::Unlisted;

/// What was learned of one program: entries by what they are ("commands").
using Learned = std::map<std::string, std::vector<std::string>>;

std::map<std::string, Learned> ByProgram(const LearnedPolicies::Result& result) {
    std::map<std::string, Learned> programs;
    for (const auto& [feature, policy] : result.m_policies) {
        const PolicyShape& shape = *PolicyShape::Find(feature);
        for (const Json::Value& rule : policy["content"]["monitor_list"]) {
            Learned& learned = programs[rule[shape.Program().m_key].asString()];
            for (const Json::Value& entry : rule[shape.List().m_key]) {
                learned[shape.List().m_noun].push_back(entry.asString());
            }
        }
    }
    return programs;
}

std::string ProgramsText(const LearnedPolicies::Result& result) {
    std::string text;
    std::string unseen;
    for (const auto& [program, learned] : ByProgram(result)) {
        if (learned.empty()) {
            unseen += (unseen.empty() ? "" : ", ") + StrUtils::EscapeForTerminal(program);
            continue;
        }
        text += StrUtils::EscapeForTerminal(program) + '\n';
        for (const auto& [noun, entries] : learned) {
            std::string before = noun;
            for (const std::string& entry : entries) {
                text += Poco::format("    %-10s%s\n", before, StrUtils::EscapeForTerminal(entry));
                before.clear();
            }
        }
    }
    return text + (unseen.empty() ? "" : "Nothing is allowed for: " + unseen + '\n');
}

std::string UnlistedText(const std::string& title, const std::vector<Unlisted>& unlisted) {
    std::string text = unlisted.empty() ? "" : '\n' + title + '\n';
    for (const Unlisted& one : unlisted) {
        text += Poco::format("    %s: %s\n        %s\n", StrUtils::EscapeForTerminal(one.m_program),
                             StrUtils::EscapeForTerminal(one.m_text),
                             StrUtils::EscapeForTerminal(one.m_why));
    }
    return text;
}

/// The trial shares nothing with the agent that runs: neither where it answers, nor its outputs,
/// their spool with them, nor its recording.
std::string AdviceText(const std::string& folder, const std::string& inForce) {
    const std::string from = StrUtils::EscapeForTerminal(folder);
    return "\nWhatever happened meanwhile is allowed by these policies, whoever did it: look at "
           "each entry.\n"
           "Then try them beside the agent that runs, and put them into force:\n"
           "    vmescape-agent check " +
           from + "/*.json\n    vmescape-agent run --policies " + from +
           " --output text:stdout -o status.socket= -o record.file=\n    cp " + from + "/*.json " +
           StrUtils::EscapeForTerminal(inForce) +
           "/\nThe agent that runs reads them as soon as they are there.\n";
}

Json::Value ToJsonList(const std::vector<Unlisted>& unlisted) {
    Json::Value list = Json::arrayValue;
    for (const Unlisted& one : unlisted) {
        Json::Value& entry = list.append(Json::objectValue);
        entry["feature"] = one.m_feature;
        entry["program"] = one.m_program;
        entry["text"] = one.m_text;
        entry["why"] = one.m_why;
    }
    return list;
}

Json::Value ToJsonList(const std::vector<std::string>& texts) {
    Json::Value list = Json::arrayValue;
    for (const std::string& text : texts) {
        list.append(text);
    }
    return list;
}

}  // namespace

int LearnReport::ExitStatus() const {
    if (!m_missed.empty() || m_files.size() != m_result.m_policies.size()) {
        return EXIT_FAILED;
    }
    return m_result.m_notAllowable.empty() && m_result.m_noRoom.empty() ? EXIT_GOOD
                                                                        : EXIT_INCOMPLETE;
}

Json::Value LearnReport::ToJson() const {
    Json::Value document;
    document["from"] = m_from;
    document["to"] = m_to;
    document["seconds"] = Json::Int64{m_watched.count()};
    document["interrupted"] = m_interrupted;
    document["files"] = ToJsonList(m_files);
    document["policies"] = Json::objectValue;
    for (const auto& [feature, policy] : m_result.m_policies) {
        document["policies"][feature] = policy;
    }
    document["cannot_be_allowed"] = ToJsonList(m_result.m_notAllowable);
    document["no_room"] = ToJsonList(m_result.m_noRoom);
    document["missed"] = ToJsonList(m_missed);
    document["good"] = ExitStatus() == EXIT_GOOD;
    return document;
}

std::string LearnReport::ToText() const {
    std::string text =
        Poco::format("Learned for %s, from %s to %s%s.\n\n", Agent::ToText(m_watched), m_from, m_to,
                     std::string(m_interrupted ? ", when it was interrupted" : ""));
    text += ProgramsText(m_result);
    text += UnlistedText("Cannot be allowed, and stays an alarm:", m_result.m_notAllowable);
    text += UnlistedText("No room, and stays an alarm:", m_result.m_noRoom);
    text += m_missed.empty() ? "" : "\nThe policies may be too narrow:\n";
    for (const std::string& missed : m_missed) {
        text += "    " + StrUtils::EscapeForTerminal(missed) + '\n';
    }
    text += m_files.empty() ? "" : "\nWritten:\n";
    for (const std::string& file : m_files) {
        text += "    " + StrUtils::EscapeForTerminal(file) + '\n';
    }
    return text + (m_files.empty() ? "" : AdviceText(m_folder, m_inForce));
}

}  // namespace Agent
