#include "Privileges.h"

#include <cap-ng.h>
#include <gtest/gtest.h>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <initializer_list>

namespace {

int ExitStatus(pid_t child) {
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

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
    return ExitStatus(child);
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

TEST_F(Privileges, ThatWatchingDoesNotNeedAreGivenUpForGood) {
    const pid_t child = ::fork();
    if (child == 0) {
        if (!Agent::Privileges::KeepNeeded("bpf").empty()) {
            ::_exit(1);
        }
        capng_get_caps_process();
        const bool kept = capng_have_capability(CAPNG_EFFECTIVE, CAP_SYS_ADMIN) == 1 &&
                          capng_have_capability(CAPNG_EFFECTIVE, CAP_BPF) == 1;
        const bool gone = capng_have_capability(CAPNG_PERMITTED, CAP_NET_ADMIN) == 0 &&
                          capng_have_capability(CAPNG_PERMITTED, CAP_SYS_MODULE) == 0 &&
                          capng_have_capability(CAPNG_PERMITTED, CAP_DAC_OVERRIDE) == 0;
        const bool unbound = capng_have_capability(CAPNG_BOUNDING_SET, CAP_SYS_ADMIN) == 1;
        const bool renounced = ::prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0) == 1;
        ::_exit(kept && gone && !unbound && renounced ? 0 : 2);
    }
    EXPECT_EQ(ExitStatus(child), 0);
}

TEST_F(Privileges, OfTheConnectorAreKeptWhereItMayBeNeeded) {
    const pid_t child = ::fork();
    if (child == 0) {
        const bool done = Agent::Privileges::KeepNeeded("auto").empty();
        ::_exit(done && Agent::Privileges::Missing("connector", true).empty() ? 0 : 1);
    }
    EXPECT_EQ(ExitStatus(child), 0);
}

TEST_F(Privileges, ThatAreMissingAreNotWantedBack) {
    const pid_t child = ::fork();
    if (child == 0) {
        capng_clear(CAPNG_SELECT_BOTH);
        capng_apply(CAPNG_SELECT_CAPS);
        const bool done = Agent::Privileges::KeepNeeded("auto").empty();
        capng_get_caps_process();
        ::_exit(done && capng_have_capabilities(CAPNG_SELECT_CAPS) == CAPNG_NONE ? 0 : 1);
    }
    EXPECT_EQ(ExitStatus(child), 0);
}

}  // namespace
