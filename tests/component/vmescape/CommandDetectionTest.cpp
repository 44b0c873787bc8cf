#include "support/CapturedLog.h"
#include "support/FakeClock.h"
#include "support/ScriptedTasks.h"
#include "support/WaitUntil.h"

#include "framework/Module.h"

#include <Poco/AutoPtr.h>
#include <Poco/SharedLibrary.h>
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>
#include <utility>

namespace {

using Framework::Message;
using TestSupport::CommandPolicy;
using TestSupport::Event;
using TestSupport::Exited;
using TestSupport::Process;
using TestSupport::ProcInfoPtr;
using TestSupport::Started;
using TestSupport::WaitUntil;
using Result = Framework::Engine::PolicyResult;
using Messages = std::vector<std::shared_ptr<Message>>;

constexpr const char* kFeature = "qemu_cmd_detect_feature";
constexpr const char* kTask = "qemu_cmd_detect_task";
constexpr const char* kDeny = R"({"virtcmd":"qemu-kvm","action":false,"cmdlist":["wget"]})";

/// The module as an agent runs it: loaded from its library, with scripted collectors around it.
class CommandDetection : public testing::Test {
protected:
    CommandDetection() {
        m_library.load(std::string(BUILD_FOLDER) + "/module/libvmescape_module.so");
        const auto create =
            reinterpret_cast<Framework::CreateModuleFunction>(m_library.getSymbol("CreateModule"));
        m_module = create();
        m_agent.Engine().addSubsystem(m_module.duplicate());
        m_agent.Full().Add(Process(1, "init", "/sbin/init", 0));
        m_agent.Full().Add(Process(100, "qemu-kvm", "qemu-kvm -name guest=vm-01,debug-threads=on"));
        m_agent.Engine().StartModules();
    }
    ~CommandDetection() override { m_agent.Engine().StopModules(); }

    Result Deliver(const std::string& text) {
        return m_agent.Engine().DeliverPolicy("10001", kFeature, text);
    }
    Framework::Task* Task() { return m_agent.Engine().FindTask(kTask); }

    /// Offers messages until all are in the task's inbox, as the collector does.
    void Send(Messages messages) {
        while (!messages.empty()) {
            const int taken = Task()->GetInbox()->SendBulk(messages);
            messages.erase(messages.begin(), messages.begin() + taken);
            if (taken == 0) {
                std::this_thread::yield();
            }
        }
    }
    bool AlarmsReach(std::size_t count) {
        return WaitUntil([&] { return m_agent.Reporter().Count() >= count; },
                         std::chrono::seconds(60));
    }

    Poco::SharedLibrary m_library;  // outlives the engine that runs its code
    TestSupport::ScriptedAgent m_agent;
    Poco::AutoPtr<Framework::Module> m_module;
    TestSupport::CapturedLog m_log{Poco::Message::PRIO_ERROR};
};

TEST_F(CommandDetection, AShellBelowAVirtualMachineRaisesTheAlarmThatNamesIt) {
    ASSERT_EQ(Deliver(CommandPolicy({kDeny})), Result::ACCEPTED);
    Send({Started(Process(101, "sh", "sh -c bash", 100, "qemu-kvm", "/usr/bin/dash"))});
    ASSERT_TRUE(AlarmsReach(1));
    const Json::Value alarm = m_agent.Reporter().Alarms().front();
    EXPECT_EQ(alarm["event_classid"], "vmescape_0001");
    EXPECT_EQ(alarm["resource_info"]["vm_name"], "vm-01");
    EXPECT_EQ(alarm["forensic_info"]["escape_mode"], "shell");
    EXPECT_EQ(alarm["forensic_info"]["monitor_process"], "qemu-kvm");
    EXPECT_TRUE(m_log.Lines().empty());
}

TEST_F(CommandDetection, WhatRanBeforeTheTaskStartedIsFoundInTheSnapshot) {
    m_agent.Full().Add(Process(101, "wget", "wget x", 100, "qemu-kvm", "/usr/bin/wget"));
    Deliver(CommandPolicy({kDeny}));
    ASSERT_TRUE(AlarmsReach(1));
    EXPECT_EQ(m_agent.Reporter().Alarms().front()["forensic_info"]["escape_mode"], "system/fork");
}

TEST_F(CommandDetection, ADisabledPolicyStopsTheTaskAndAnEnabledOneStartsItAgain) {
    Deliver(CommandPolicy({kDeny}));
    Framework::Task* first = Task();
    EXPECT_EQ(Deliver(CommandPolicy({kDeny}, false)), Result::ACCEPTED);
    EXPECT_EQ(Task(), nullptr);
    EXPECT_EQ(Deliver(CommandPolicy({kDeny})), Result::ACCEPTED);
    EXPECT_EQ(Task(), first);
    Send({Started(Process(101, "wget", "wget", 100, "qemu-kvm"))});
    EXPECT_TRUE(AlarmsReach(1));
}

TEST_F(CommandDetection, ABrokenPolicyLeavesTheOneInForceAtWork) {
    Deliver(CommandPolicy({kDeny}));
    const auto inForce = m_agent.Engine().GetPolicy(kFeature);
    const std::string deep = std::string(10000, '[') + std::string(10000, ']');
    for (const std::string& text :
         {std::string(), std::string("no json"), std::string("{}"), std::string("[]"),
          CommandPolicy({}), CommandPolicy({"3"}), deep,
          R"({"module_name":"vmescape_module","content":{"monitor_list":)" + deep + "}}"}) {
        EXPECT_EQ(Deliver(text), Result::REFUSED);
        EXPECT_EQ(m_agent.Engine().GetPolicy(kFeature), inForce);
    }
    Send({Started(Process(101, "wget", "wget", 100, "qemu-kvm"))});
    EXPECT_TRUE(AlarmsReach(1));
}

TEST_F(CommandDetection, ADescendantIsStillFoundAfterItsAncestorsExited) {
    Deliver(CommandPolicy({kDeny}));
    Send({Started(Process(101, "helper", "helper", 100, "qemu-kvm")), Exited(100), Exited(101),
          Started(Process(102, "wget", "wget", 101, "helper"))});
    EXPECT_TRUE(AlarmsReach(1));
}

TEST_F(CommandDetection, AThousandRegistrationsOfItsTaskNeitherHangNorLeak) {
    Deliver(CommandPolicy({kDeny}));
    Framework::Task* task = Task();
    const int references = task->referenceCount();
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(Deliver(CommandPolicy({kDeny}, false)), Result::ACCEPTED);
        ASSERT_EQ(Deliver(CommandPolicy({kDeny}, true)), Result::ACCEPTED);
    }
    EXPECT_EQ(Task(), task);
    EXPECT_EQ(task->referenceCount(), references);
}

TEST_F(CommandDetection, AThousandPolicySwapsUnderLoadLoseNoAlarm) {
    constexpr int kMessages = 100000;
    constexpr int kAlarmEvery = 500;
    constexpr int kSwaps = 1000;
    constexpr int kMessagesPerSwap = kMessages / kSwaps;
    constexpr int kSwapsBehind = 20;  // more than one batch is worth
    std::atomic<int> swaps{0};
    Deliver(CommandPolicy({kDeny}, true, "0"));
    std::thread load([this, &swaps] {
        Messages batch;
        for (int i = 0; i < kMessages; ++i) {
            const int pid = 1000 + i;
            const bool sensitive = i % kAlarmEvery == 0;
            batch.push_back(Started(sensitive ? Process(pid, "wget", "wget " + std::to_string(i),
                                                        100, "qemu-kvm", "/usr/bin/wget")
                                              : Process(pid, "make", "make", 50, "bash")));
            if (batch.size() == 128 || i + 1 == kMessages) {
                while (swaps < i / kMessagesPerSwap - kSwapsBehind) {
                    std::this_thread::yield();
                }
                Send(std::exchange(batch, {}));
            }
        }
    });
    for (; swaps < kSwaps; ++swaps) {
        // The flow waits for the swaps and they wait for it, so that every swap meets messages.
        const auto due = static_cast<std::uint64_t>(swaps) * kMessagesPerSwap;
        while (Task()->GetInbox()->Accepted() < due) {
            std::this_thread::yield();
        }
        EXPECT_EQ(Deliver(CommandPolicy({kDeny}, true, std::to_string(swaps + 1))),
                  Result::ACCEPTED);
    }
    load.join();
    ASSERT_TRUE(AlarmsReach(kMessages / kAlarmEvery));
    std::set<std::string> seen;
    for (const Json::Value& alarm : m_agent.Reporter().Alarms()) {
        seen.insert(alarm["process_info"][0]["process_cmdline"].asString());
    }
    EXPECT_EQ(seen.size(), static_cast<std::size_t>(kMessages / kAlarmEvery));
    EXPECT_EQ(Task()->GetInbox()->Lost(), 0U);
}

}  // namespace
