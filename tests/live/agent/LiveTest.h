#pragma once

#include "sdk/UniqueDescriptor.h"
#include "support/AgentProcess.h"
#include "support/QemuProcess.h"

#include <gtest/gtest.h>
#include <json/value.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstdlib>
#include <string>

/// A test that needs this host's kernel, root, and a real QEMU. Where one of them is missing it is
/// skipped by name; where everything has to be there, in CI, it fails.
class LiveTest : public testing::Test {
protected:
    using Agent = TestSupport::AgentProcess;
    using Qemu = TestSupport::QemuProcess;

    void SetUp() override {
        Need(Agent::Missing());
        Need(Qemu::Missing());
    }

    static void Need(const std::string& missing) {
        if (missing.empty()) {
            return;
        }
        ASSERT_EQ(std::getenv("CI"), nullptr) << missing;
        GTEST_SKIP() << missing;
    }

    /// Whether nobody holds a TCP port on any address.
    static bool IsFree(int port) {
        const SDK::UniqueDescriptor probe(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in6 address{};
        address.sin6_family = AF_INET6;
        address.sin6_port = htons(static_cast<std::uint16_t>(port));
        return ::bind(probe.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    }

    static std::string Mode(const Json::Value& alarm) {
        return alarm["forensic_info"]["escape_mode"].asString();
    }
    static std::string Vm(const Json::Value& alarm) {
        return alarm["resource_info"]["vm_name"].asString();
    }
    static std::string Command(const Json::Value& alarm) {
        return alarm["process_info"][0]["process_cmdline"].asString();
    }

    /// Waits for the alarm of a command. Null when none comes.
    static Json::Value WaitFor(const Agent& agent, const std::string& mode,
                               const std::string& command) {
        return agent.WaitForAlarm([&](const Json::Value& alarm) {
            return Mode(alarm) == mode && Command(alarm) == command;
        });
    }

    /// Commands that are looked for by path; shells are alarms of their own.
    static std::string DenyList() { return Agent::Policy(false, {"/usr/bin/id", "/usr/bin/true"}); }
};
