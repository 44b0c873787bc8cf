#include "ListVerb.h"

#include "AnsweringAgent.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

namespace {

const char* const kDocument =
    R"({"policies":[],"omitted":0,"machines":[{"vm_name":"vm-01","pid":7,)"
    R"("name":"kvm","since":"","below":0,"detections":["ports"]}]})";

class ListVerb : public testing::Test {
protected:
    ListVerb() { m_options.m_socket = m_folder / "agent.sock"; }

    /// Runs the verb while an agent answers. @return its exit status
    int AskWhileAnswering(const std::string& answer) {
        const AnsweringAgent agent(m_options.m_socket, "list", answer);
        return Ask();
    }

    int Ask() {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const int code = Agent::PrintList(m_options);
        m_output = testing::internal::GetCapturedStdout();
        m_complaint = testing::internal::GetCapturedStderr();
        return code;
    }

    TestSupport::TemporaryFolder m_folder;
    Agent::Options m_options;
    std::string m_output;
    std::string m_complaint;
};

TEST_F(ListVerb, PrintsTables) {
    EXPECT_EQ(AskWhileAnswering(kDocument), Agent::EXIT_GOOD);
    EXPECT_NE(m_output.find("\nvm-01  "), std::string::npos) << m_output;
}

TEST_F(ListVerb, PrintsTheDocumentWhenAskedTo) {
    m_options.m_json = true;
    EXPECT_EQ(AskWhileAnswering(kDocument), Agent::EXIT_GOOD);
    EXPECT_EQ(m_output, kDocument + std::string("\n"));
}

TEST_F(ListVerb, EndsWithOneWhenNobodyAnswersOrNoAgent) {
    EXPECT_EQ(Ask(), Agent::EXIT_FAILED);
    EXPECT_NE(m_complaint.find("no agent answers at " + m_options.m_socket), std::string::npos);
    EXPECT_EQ(AskWhileAnswering("SSH-2.0"), Agent::EXIT_FAILED);
    EXPECT_NE(m_complaint.find("is no agent"), std::string::npos);
    EXPECT_EQ(m_output, "");
}

TEST_F(ListVerb, EndsWithOneWhenTheAgentDoesNotKnowIt) {
    EXPECT_EQ(AskWhileAnswering(R"({"error":"expected \"status\""})"), Agent::EXIT_FAILED);
    EXPECT_EQ(m_complaint, "vmescape-agent: the agent at " + m_options.m_socket +
                               " says: expected \"status\"\n");
}

TEST_F(ListVerb, EndsWithSixWhenTheConfigurationIsWrong) {
    m_options.m_config = m_folder.Write("agent.json", "[]");
    m_options.m_socket.clear();
    EXPECT_EQ(Ask(), Agent::EXIT_BAD_INPUT);
    EXPECT_NE(m_complaint.find("agent.json: expected a JSON object"), std::string::npos);
}

}  // namespace
