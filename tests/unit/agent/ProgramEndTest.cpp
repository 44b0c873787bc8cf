#include "ProgramEnd.h"

#include "ExitCode.h"

#include <Poco/Exception.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iostream>
#include <stdexcept>

namespace {

/// Gives standard output somewhere else to go.
class OutputTo {
public:
    explicit OutputTo(const char* path) : m_file(path), m_before(std::cout.rdbuf(m_file.rdbuf())) {}
    ~OutputTo() {
        std::cout.rdbuf(m_before);  // forgets what failed, too
    }
    OutputTo(const OutputTo&) = delete;
    OutputTo& operator=(const OutputTo&) = delete;

private:
    std::ofstream m_file;
    std::streambuf* const m_before;
};

class ProgramEnd : public testing::Test {
protected:
    int End(const std::function<int()>& work) {
        testing::internal::CaptureStderr();
        const int status = Agent::ExitStatusOf(work);
        m_errors = testing::internal::GetCapturedStderr();
        return status;
    }

    std::string m_errors;
};

TEST_F(ProgramEnd, IsWhatTheWorkEndsWith) {
    const OutputTo nowhere("/dev/null");
    for (const int status : {Agent::EXIT_GOOD, Agent::EXIT_USAGE, Agent::EXIT_BAD_INPUT}) {
        EXPECT_EQ(End([status]() -> int {
                      std::cout << "result\n";
                      return status;
                  }),
                  status);
        EXPECT_EQ(m_errors, "");
    }
}

TEST_F(ProgramEnd, IsAFailureWhenTheResultWasNotWritten) {
    const OutputTo full("/dev/full");
    const char* const complaint =
        "vmescape-agent: the result cannot be written to standard output\n";
    EXPECT_EQ(End([]() -> int {
                  std::cout << "result\n";
                  return Agent::EXIT_GOOD;
              }),
              Agent::EXIT_FAILED);
    EXPECT_EQ(m_errors, complaint);
    // Some verbs wrote all of it before they returned.
    EXPECT_EQ(End([]() -> int {
                  std::cout << "result\n" << std::flush;
                  return Agent::EXIT_GOOD;
              }),
              Agent::EXIT_FAILED);
    EXPECT_EQ(m_errors, complaint);
}

TEST_F(ProgramEnd, IsGoodWhereThereWasNothingToWrite) {
    const OutputTo full("/dev/full");
    EXPECT_EQ(End([] { return 0; }), Agent::EXIT_GOOD);
}

TEST_F(ProgramEnd, TellsWhatAnExceptionTells) {
    EXPECT_EQ(End([]() -> int { throw Poco::FileException("cannot be made", "/a\x1b[31m"); }),
              Agent::EXIT_FAILED);
    EXPECT_EQ(m_errors, "vmescape-agent: File access error: cannot be made: /a\\x1b[31m\n");
    EXPECT_EQ(End([]() -> int { throw std::runtime_error("no way"); }), Agent::EXIT_FAILED);
    EXPECT_EQ(m_errors, "vmescape-agent: no way\n");
}

}  // namespace
