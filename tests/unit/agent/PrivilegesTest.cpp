#include "Privileges.h"

#include <cap-ng.h>
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <initializer_list>

namespace {

/// How many privileges are missing to a child with these capabilities and no others.
int CountMissing(std::initializer_list<unsigned int> capabilities, const std::string& source,
                 bool files = false) {
    const pid_t child = ::fork();
    if (child == 0) {
        capng_clear(CAPNG_SELECT_BOTH);
        for (const unsigned int capability : capabilities) {
            capng_update(
                CAPNG_ADD,
                static_cast<capng_type_t>(unsigned{CAPNG_EFFECTIVE} | unsigned{CAPNG_PERMITTED}),
                capability);
        }
        if (capng_apply(CAPNG_SELECT_CAPS) != 0) {
            ::_exit(99);
        }
        ::_exit(static_cast<int>(Agent::Privileges::Missing(source, files).size()));
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class Privileges : public testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0) {
            ASSERT_EQ(std::getenv("CI"), nullptr) << "needs root";
            GTEST_SKIP() << "needs root to hand capabilities to a child";
        }
    }
};

TEST_F(Privileges, OfRootAreEnough) {
    for (const char* source : {"auto", "bpf", "connector"}) {
        EXPECT_TRUE(Agent::Privileges::Missing(source, true).empty());
    }
}

TEST_F(Privileges, ForBpfAreBpfAndPerfmonOrTheOlderAdministrator) {
    EXPECT_EQ(CountMissing({CAP_BPF, CAP_PERFMON, CAP_SYS_PTRACE}, "bpf"), 0);
    EXPECT_EQ(CountMissing({CAP_SYS_ADMIN, CAP_SYS_PTRACE}, "bpf"), 0);
    EXPECT_EQ(CountMissing({CAP_BPF, CAP_SYS_PTRACE}, "bpf"), 1);
    EXPECT_EQ(CountMissing({CAP_PERFMON, CAP_NET_ADMIN, CAP_SYS_PTRACE}, "bpf"), 1);
}

TEST_F(Privileges, ForTheConnectorAreThoseOfTheNetworkAdministrator) {
    EXPECT_EQ(CountMissing({CAP_NET_ADMIN, CAP_SYS_PTRACE}, "connector"), 0);
    EXPECT_EQ(CountMissing({CAP_SYS_ADMIN, CAP_SYS_PTRACE}, "connector"), 1);
}

TEST_F(Privileges, ForAnySourceAreThoseOfOne) {
    EXPECT_EQ(CountMissing({CAP_NET_ADMIN, CAP_SYS_PTRACE}, "auto"), 0);
    EXPECT_EQ(CountMissing({CAP_SYS_ADMIN, CAP_SYS_PTRACE}, "auto"), 0);
    EXPECT_EQ(CountMissing({CAP_SYS_PTRACE}, "auto"), 2);
}

TEST_F(Privileges, ToSeeOthersProgramsAreNeededInAnyCase) {
    EXPECT_EQ(CountMissing({CAP_SYS_ADMIN, CAP_NET_ADMIN}, "auto"), 1);
    EXPECT_EQ(CountMissing({}, "auto"), 3);
}

TEST_F(Privileges, ForFilesAreTheAdministratorAndTheReaderOfAll) {
    EXPECT_EQ(CountMissing({CAP_SYS_ADMIN, CAP_SYS_PTRACE, CAP_DAC_READ_SEARCH}, "bpf", true), 0);
    EXPECT_EQ(CountMissing({CAP_SYS_ADMIN, CAP_SYS_PTRACE}, "bpf", true), 1);
    EXPECT_EQ(CountMissing({CAP_BPF, CAP_PERFMON, CAP_SYS_PTRACE}, "bpf", true), 2);
}

}  // namespace
