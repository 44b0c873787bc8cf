// No memory, at any point: nothing is half done, nothing leaks, and the next attempt works.

#include "OpenCmdTask.h"
#include "OpenFileTask.h"
#include "OpenPortTask.h"
#include "support/CapturedLog.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <new>

namespace {

// Allocations of this thread that still succeed; negative: all of them.
thread_local long g_left = -1;
thread_local bool g_failed = false;

void* Allocate(std::size_t size) {
    if (g_left == 0) {
        g_failed = true;
        throw std::bad_alloc();
    }
    g_left -= g_left > 0 ? 1 : 0;
    void* memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

/// Does something once with each allocation failing, and every later one, until it no longer needs
/// so many.
/// @param act    what is tried
/// @param after  called after each failure, with memory
/// @return how many allocations it took
int FailEachAllocation(const std::function<void()>& act, const std::function<void()>& after) {
    for (int allocations = 0;; ++allocations) {
        g_failed = false;
        g_left = allocations;
        try {
            act();
        } catch (const std::bad_alloc&) {
            g_failed = true;
        }
        g_left = -1;
        if (!g_failed) {
            return allocations;
        }
        after();
    }
}

}  // namespace

void* operator new(std::size_t size) { return Allocate(size); }
void* operator new[](std::size_t size) { return Allocate(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

class WithoutMemory : public testing::Test {
protected:
    /// Parses with each allocation failing once; a policy of the same text can be made afterwards.
    template <typename Policy>
    static int ParseFailing(const std::string& feature, const std::string& text) {
        return FailEachAllocation(
            [&] {
                Policy policy(feature);
                EXPECT_TRUE(policy.Parse(text) || g_failed);
            },
            [&] {
                Policy policy(feature);
                EXPECT_TRUE(policy.Parse(text));
            });
    }

    std::size_t Sent() { return m_agent.Reporter().Count(); }

    TestSupport::ScriptedAgent m_agent;
};

TEST_F(WithoutMemory, ACommandPolicyIsParsedOrNot) {
    const std::string text = TestSupport::CommandPolicy({DENY_RULE, ALLOW_RULE});
    EXPECT_GT(ParseFailing<Engine::QemuCmdDetectPolicy>("qemu_cmd_detect_feature", text), 20);
}

TEST_F(WithoutMemory, AFilePolicyIsParsedOrNot) {
    const std::string text = FilePolicy({"/etc", "/root"}, {"/etc/shadow"});
    EXPECT_GT(ParseFailing<Engine::QemuFileDetectPolicy>("qemu_file_detect_feature", text), 20);
}

TEST_F(WithoutMemory, APortPolicyIsParsedOrNot) {
    const std::string text =
        TestSupport::CommandPolicy({R"({"virtmonitor":"qemu-kvm","portlist":["22","80"]})"});
    EXPECT_GT(ParseFailing<Engine::QemuPortDetectPolicy>("qemu_port_detect_feature", text), 20);
}

TEST_F(WithoutMemory, AMessageIsReceivedLaterRatherThanNever) {
    OpenCmdTaskPtr task = new OpenCmdTask;
    const auto message = std::make_shared<Framework::Message>("any");
    int sent = 1;
    int received = 0;
    task->GetInbox()->Send(message);
    const auto receive = [&] {
        std::vector<std::shared_ptr<Framework::Message>> messages;
        received += task->BulkRecvMsg(messages, 128);
    };
    EXPECT_GT(FailEachAllocation(receive,
                                 [&] {
                                     task->GetInbox()->Send(message);
                                     ++sent;
                                     receive();
                                 }),
              0);
    EXPECT_EQ(received, sent);
}

TEST_F(WithoutMemory, AnAlarmOfACommandIsSentWholeOrNotAtAll) {
    OpenCmdTaskPtr task = new OpenCmdTask;
    task->Use({DENY_RULE});
    task->m_procCmdCache["qemu-kvm"] = "qemu-kvm -name guest=vm-01";
    int pid = 100;
    const auto send = [&] {
        task->SendAlarm(TestSupport::Process(++pid, "wget", "wget x", 1, "qemu-kvm"), "qemu-kvm",
                        "shell");
    };
    EXPECT_GT(FailEachAllocation(send, send), 20);
    for (const Json::Value& alarm : m_agent.Reporter().Alarms()) {
        EXPECT_EQ(alarm["resource_info"]["vm_name"].asString(), "vm-01");
        EXPECT_EQ(alarm["process_info"][0]["process_cmdline"].asString(), "wget x");
    }
    EXPECT_GT(Sent(), 20U);
}

TEST_F(WithoutMemory, AnAlarmOfAFileIsSentWholeOrNotAtAll) {
    OpenFileTaskPtr task = new OpenFileTask;
    task->Use(FilePolicy({"/etc"}));
    task->m_monitorCmdlineMap["qemu-kvm"] = "qemu-kvm -name guest=vm-01";
    int pid = 100;
    const auto send = [&] {
        task->SendAlarm("qemu-kvm", "qemu-kvm", ++pid, "/etc/shadow", "open");
    };
    EXPECT_GT(FailEachAllocation(send, send), 20);
    for (const Json::Value& alarm : m_agent.Reporter().Alarms()) {
        EXPECT_EQ(alarm["file_info"][0]["file_path"].asString(), "/etc/shadow");
    }
    EXPECT_GT(Sent(), 20U);
}

TEST_F(WithoutMemory, AnAlarmOfAPortIsSentWholeOrNotAtAll) {
    OpenPortTaskPtr task = new OpenPortTask;
    int pid = 100;
    const auto send = [&] {
        task->SendAlarm("qemu-kvm", ++pid, "4444", "qemu-kvm -name guest=vm-01");
    };
    EXPECT_GT(FailEachAllocation(send, send), 20);
    for (const Json::Value& alarm : m_agent.Reporter().Alarms()) {
        EXPECT_EQ(alarm["forensic_info"]["abnormal_port"].asString(), "4444");
    }
    EXPECT_GT(Sent(), 20U);
}

}  // namespace
