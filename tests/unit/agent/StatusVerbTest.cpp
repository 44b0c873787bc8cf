#include "StatusVerb.h"

#include "AnsweringAgent.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

namespace {

const char* const kDocument =
    R"({"version":"9","pid":7,"started":"then","state":"up","reasons":[],"tasks":[],"policies":[]})";

class StatusVerb : public testing::Test {
protected:
    StatusVerb() { m_options.m_socket = m_folder / "agent.sock"; }

    /// Runs the verb while an agent answers. @return its exit status
    int AskWhileAnswering(const std::string& answer) {
        const AnsweringAgent agent(m_options.m_socket, "status", answer);
        return Ask();
    }

    int Ask() {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const int code = Agent::PrintStatus(m_options);
        m_output = testing::internal::GetCapturedStdout();
        m_complaint = testing::internal::GetCapturedStderr();
        return code;
    }

    TestSupport::TemporaryFolder m_folder;
    Agent::Options m_options;
    std::string m_output;
    std::string m_complaint;
};

TEST_F(StatusVerb, PrintsATableAndEndsWithZeroWhenTheAgentIsUp) {
    EXPECT_EQ(AskWhileAnswering(kDocument), Agent::EXIT_GOOD);
    EXPECT_EQ(m_output.find("vmescape-agent 9, pid 7, since then: up\n"), 0U) << m_output;
}

TEST_F(StatusVerb, PrintsTheDocumentWhenAskedTo) {
    m_options.m_json = true;
    EXPECT_EQ(AskWhileAnswering(kDocument), Agent::EXIT_GOOD);
    EXPECT_EQ(m_output, kDocument + std::string("\n"));
}

TEST_F(StatusVerb, EndsWithOneWhenTheAgentIsDegraded) {
    EXPECT_EQ(AskWhileAnswering(R"({"state":"degraded","reasons":["why"]})"), Agent::EXIT_FAILED);
    EXPECT_NE(m_output.find("  why\n"), std::string::npos) << m_output;
}

TEST_F(StatusVerb, EndsWithOneWhenNobodyAnswers) {
    EXPECT_EQ(Ask(), Agent::EXIT_FAILED);
    EXPECT_NE(m_complaint.find("no agent answers at " + m_options.m_socket), std::string::npos);
    EXPECT_EQ(m_output, "");
}

TEST_F(StatusVerb, EndsWithOneWhenWhatAnswersIsNoAgent) {
    for (const char* answer : {"SSH-2.0", "[1]", ""}) {
        EXPECT_EQ(AskWhileAnswering(answer), Agent::EXIT_FAILED) << answer;
        EXPECT_NE(m_complaint.find("is no agent"), std::string::npos) << answer;
    }
}

TEST_F(StatusVerb, EndsWithOneWhenTheAgentDiesInTheMiddleOfItsAnswer) {
    const std::string whole = kDocument;
    for (const std::size_t length : {std::size_t{1}, whole.length() / 2, whole.length() - 1}) {
        EXPECT_EQ(AskWhileAnswering(whole.substr(0, length)), Agent::EXIT_FAILED) << length;
        EXPECT_EQ(m_complaint,
                  "vmescape-agent: the answer of the agent at " + m_options.m_socket + " is cut\n");
        EXPECT_EQ(m_output, "");
    }
}

TEST_F(StatusVerb, PrintsWhatTheAgentComplainsOf) {
    EXPECT_EQ(AskWhileAnswering(R"({"error":"no \u001b[31m way"})"), Agent::EXIT_FAILED);
    EXPECT_NE(m_complaint.find(" says: no \\x1b[31m way\n"), std::string::npos) << m_complaint;
}

TEST_F(StatusVerb, AsksAtTheSocketOfTheConfiguration) {
    const std::string config =
        m_folder.Write("agent.json", R"({"status":{"socket":")" + m_options.m_socket + R"("}})");
    Agent::Options options = m_options;
    m_options.m_config = config;
    m_options.m_socket.clear();
    EXPECT_EQ(Ask(), Agent::EXIT_FAILED);
    EXPECT_NE(m_complaint.find("at " + options.m_socket), std::string::npos) << m_complaint;
}

TEST_F(StatusVerb, SaysSoWhenTheConfigurationLetsTheAgentAnswerNowhere) {
    m_options.m_config = m_folder.Write("agent.json", R"({"status":{"socket":""}})");
    m_options.m_socket.clear();
    EXPECT_EQ(Ask(), Agent::EXIT_FAILED);
    EXPECT_EQ(m_complaint, "vmescape-agent: status.socket is empty: the agent answers nowhere\n");
}

TEST_F(StatusVerb, EndsWithSixWhenTheConfigurationIsWrong) {
    m_options.m_config = m_folder.Write("agent.json", "[]");
    m_options.m_socket.clear();
    EXPECT_EQ(Ask(), Agent::EXIT_BAD_INPUT);
    EXPECT_NE(m_complaint.find("agent.json: expected a JSON object"), std::string::npos);
}

}  // namespace
