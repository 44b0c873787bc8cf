#include "VmEscapeDetectModule.h"

#include "QemuCmdDetectPolicy.h"
#include "QemuCmdDetectTask.h"
#include "QemuFileDetectTask.h"
#include "QemuPortDetectTask.h"
#include "support/CapturedLog.h"
#include "support/ScriptedTasks.h"

#include <Poco/AutoPtr.h>
#include <gtest/gtest.h>

#include <type_traits>

namespace {

using Engine::VmEscapeDetectModule;
using TestSupport::CapturedLog;
using TestSupport::CommandPolicy;
using Strings = std::vector<std::string>;

constexpr auto kError = Poco::Message::PRIO_ERROR;
constexpr auto kInformation = Poco::Message::PRIO_INFORMATION;
constexpr const char* kRule = R"({"virtcmd":"qemu","cmdlist":[]})";
constexpr const char* kFeature = "qemu_cmd_detect_feature";
constexpr const char* kTask = "qemu_cmd_detect_task";

class ModuleTest : public testing::Test {
protected:
    ~ModuleTest() override { m_module->UnInit(); }

    /// Calls the policy callback; the policy that it accepts is kept until the test ends.
    bool Refresh(const std::string& feature, const std::string& text,
                 Framework::Policy* current = nullptr) {
        m_policy.reset(m_module->RefreshFeaturePolicy(feature, text, current));
        return m_policy != nullptr;
    }
    /// The module's own lines, without those that its tasks write while they end.
    Strings LinesOfTheModule() {
        Strings lines = m_log.Texts(kInformation);
        std::erase_if(lines, [](const std::string& line) {
            return line.find("DetectTask uninit") != std::string::npos;
        });
        return lines;
    }
    bool IsRegistered(const std::string& task) {
        return m_agent.Engine().FindTask(task) != nullptr;
    }

    TestSupport::ScriptedAgent m_agent;
    Poco::AutoPtr<VmEscapeDetectModule> m_module = new VmEscapeDetectModule;
    std::unique_ptr<Framework::Policy> m_policy;
    CapturedLog m_log{Poco::Message::PRIO_INFORMATION};
};

TEST_F(ModuleTest, IsNamedAsTheAgentExpects) { EXPECT_STREQ(m_module->name(), "vmescape_module"); }

TEST_F(ModuleTest, InitRegistersForPoliciesAndStartsNoTask) {
    EXPECT_EQ(m_module->Init(), 0);
    EXPECT_EQ(m_log.Texts(kInformation),
              (Strings{"VmEscapeDetectModule Init start", "VmEscapeDetectModule Init end"}));
    EXPECT_FALSE(IsRegistered(kTask));
    EXPECT_EQ(m_agent.Engine().DeliverPolicy("10001", kFeature, CommandPolicy({kRule})),
              Framework::Engine::PolicyResult::ACCEPTED);
    EXPECT_TRUE(IsRegistered(kTask));
}

TEST_F(ModuleTest, UnInitWritesALineOnlyForTasksThatWereRegistered) {
    EXPECT_EQ(m_module->UnInit(), 0);
    EXPECT_EQ(m_log.Texts(kInformation),
              (Strings{"VmEscapeDetectModule UnInit start", "VmEscapeDetectModule UnInit end"}));
    for (const char* task :
         {"qemu_port_detect_task", "qemu_cmd_detect_task", "qemu_file_detect_task"}) {
        ASSERT_TRUE(m_module->RegisterDetectTask(task));
    }
    m_log.Clear();
    m_module->UnInit();
    EXPECT_EQ(LinesOfTheModule(),
              (Strings{"VmEscapeDetectModule UnInit start",
                       "VmEscapeDetectModule unregister task(qemu_cmd_detect_task)",
                       "VmEscapeDetectModule unregister task(qemu_file_detect_task)",
                       "VmEscapeDetectModule unregister task(qemu_port_detect_task)",
                       "VmEscapeDetectModule UnInit end"}));
}

TEST_F(ModuleTest, UnInitGoesOnAfterATaskThatWasNotRegistered) {
    for (const char* task : {"qemu_port_detect_task", "qemu_file_detect_task"}) {
        ASSERT_TRUE(m_module->RegisterDetectTask(task));
        m_log.Clear();
        m_module->UnInit();
        EXPECT_EQ(LinesOfTheModule(),
                  (Strings{"VmEscapeDetectModule UnInit start",
                           "VmEscapeDetectModule unregister task(" + std::string(task) + ')',
                           "VmEscapeDetectModule UnInit end"}));
    }
}

/// A task of somebody else's.
class ForeignTask : public Framework::Task {
public:
    explicit ForeignTask(const std::string& name)
        : Framework::Task(name, "", Framework::TaskCondition::RESIDENT_TASK, 64) {}
};

TEST_F(ModuleTest, UnInitUnregistersByNameWhoeverBearsIt) {
    Poco::AutoPtr<ForeignTask> foreign = new ForeignTask("qemu_file_detect_task");
    ASSERT_EQ(m_agent.Engine().RegisterTask(foreign.get(), false), 0);
    m_module->UnInit();
    EXPECT_FALSE(IsRegistered("qemu_file_detect_task"));
    EXPECT_EQ(
        m_log.Count(kInformation, "VmEscapeDetectModule unregister task(qemu_file_detect_task)"),
        1U);
}

TEST_F(ModuleTest, UnInitEndsTheRegistrationForPolicies) {
    m_module->Init();
    m_module->UnInit();
    EXPECT_EQ(m_agent.Engine().DeliverPolicy("10001", kFeature, CommandPolicy({kRule})),
              Framework::Engine::PolicyResult::NO_RECEIVER);
}

TEST_F(ModuleTest, ANameThatIsTakenIsRefusedBeforeItIsAskedWhetherItIsKnown) {
    EXPECT_FALSE(m_module->RegisterDetectTask("procs_real_task"));
    EXPECT_EQ(m_log.Texts(kInformation),
              Strings{"Task(procs_real_task) already exists and does not need to be registered."});
}

static_assert(std::is_base_of_v<Engine::AbstractMessageReceiver, Engine::QemuCmdDetectTask>);
static_assert(std::is_base_of_v<Engine::AbstractMessageReceiver, Engine::QemuFileDetectTask>);
static_assert(!std::is_base_of_v<Engine::AbstractMessageReceiver, Engine::QemuPortDetectTask>,
              "it asks for what it needs, nobody sends it anything");

TEST_F(ModuleTest, ItsLinesCarryItsLoggerAndTheirPlaceInTheSource) {
    m_module->Init();
    const CapturedLog::Line line = m_log.Lines().front();
    EXPECT_EQ(line.logger, "vmescape_module");
    EXPECT_EQ(line.file, "VmEscapeDetectModule.cpp");
    EXPECT_GT(line.line, 0);
}

TEST_F(ModuleTest, ARunningTaskIsNotRegisteredAgain) {
    ASSERT_TRUE(m_module->RegisterDetectTask(kTask));
    Framework::Task* running = m_agent.Engine().FindTask(kTask);
    EXPECT_FALSE(m_module->RegisterDetectTask(kTask));
    EXPECT_EQ(m_agent.Engine().FindTask(kTask), running);
    EXPECT_EQ(m_log.Count(kInformation,
                          "VmEscape Module register the task(qemu_cmd_detect_task) "
                          "success."),
              1U);
    EXPECT_EQ(m_log.Count(kInformation,
                          "Task(qemu_cmd_detect_task) already exists and does not "
                          "need to be registered."),
              1U);
}

TEST_F(ModuleTest, ATaskIsConstructedOnceForTheModulesLife) {
    ASSERT_TRUE(m_module->RegisterDetectTask(kTask));
    Framework::Task* first = m_agent.Engine().FindTask(kTask);
    EXPECT_EQ(first->referenceCount(), 3);  // its maker's, the module's own, the engine's
    m_module->UnRegisterTask(kTask);
    EXPECT_EQ(first->referenceCount(), 2);
    ASSERT_TRUE(m_module->RegisterDetectTask(kTask));
    EXPECT_EQ(m_agent.Engine().FindTask(kTask), first);
}

TEST_F(ModuleTest, ItsTasksLiveUntilItsOwnEnd) {
    Poco::AutoPtr<VmEscapeDetectModule> module = new VmEscapeDetectModule;
    std::vector<std::weak_ptr<Framework::Inbox>> inboxes;
    for (const char* task :
         {"qemu_cmd_detect_task", "qemu_file_detect_task", "qemu_port_detect_task"}) {
        ASSERT_TRUE(module->RegisterDetectTask(task));
        inboxes.emplace_back(m_agent.Engine().FindTask(task)->GetInbox());
    }
    module->UnInit();
    for (const auto& inbox : inboxes) {
        EXPECT_FALSE(inbox.expired());
    }
    module = nullptr;
    for (const auto& inbox : inboxes) {
        EXPECT_TRUE(inbox.expired());
    }
}

TEST_F(ModuleTest, ItsTasksEndInTheOrderCommandFilePort) {
    Strings ended;
    Poco::AutoPtr<VmEscapeDetectModule> module = new VmEscapeDetectModule;
    for (const char* name :
         {"qemu_port_detect_task", "qemu_file_detect_task", "qemu_cmd_detect_task"}) {
        ASSERT_TRUE(module->RegisterDetectTask(name));
        // A task gives up its policy when it ends.
        m_agent.Engine().FindTask(name)->AttachFeaturePolicy(
            std::shared_ptr<Framework::FeaturePolicy>(
                new Framework::FeaturePolicy(name),
                [&ended, name](Framework::FeaturePolicy* policy) {
                    ended.emplace_back(name);
                    delete policy;
                }));
    }
    module->UnInit();
    EXPECT_TRUE(ended.empty());
    module = nullptr;
    EXPECT_EQ(ended,
              (Strings{"qemu_cmd_detect_task", "qemu_file_detect_task", "qemu_port_detect_task"}));
}

TEST_F(ModuleTest, UnknownTaskNamesAreRefusedSilently) {
    for (const char* task : {"QEMU_CMD_DETECT_TASK", "qemu_cmd_detect_task ", "", "other"}) {
        EXPECT_FALSE(m_module->RegisterDetectTask(task)) << task;
    }
    EXPECT_TRUE(m_log.Lines().empty());
}

TEST_F(ModuleTest, ATextThatIsNotJsonIsRefusedSilentlyAndTheCurrentPolicyStaysUnmarked) {
    Framework::Policy current("x");
    for (const char* text : {"", "no json"}) {
        EXPECT_FALSE(Refresh(kFeature, text, &current));
    }
    EXPECT_TRUE(m_log.Lines().empty());
    EXPECT_FALSE(current.m_replaced);
}

TEST_F(ModuleTest, APolicyForAnotherModuleIsRefusedAndTheCurrentPolicyStaysUnmarked) {
    Framework::Policy current("x");
    EXPECT_FALSE(Refresh(kFeature, R"({"module_name":"VMESCAPE_MODULE"})", &current));
    EXPECT_FALSE(Refresh(kFeature, "{}", &current));
    EXPECT_FALSE(current.m_replaced);
    EXPECT_EQ(m_log.Texts(kError),
              (Strings{"The policy content(moduleName=VMESCAPE_MODULE) does not belong to "
                       "VMEscapeDetectModule",
                       "The policy content(moduleName=) does not belong to VMEscapeDetectModule"}));
}

TEST_F(ModuleTest, AnUnknownFeatureIsRefusedSilentlyButMarksTheCurrentPolicy) {
    Framework::Policy current("x");
    EXPECT_FALSE(Refresh("other_feature", CommandPolicy({kRule}), &current));
    EXPECT_TRUE(current.m_replaced);
    EXPECT_TRUE(m_log.Lines().empty());
}

TEST_F(ModuleTest, FeaturesAreComparedExactly) {
    for (const char* feature :
         {"QEMU_CMD_DETECT_FEATURE", "qemu_cmd_detect_feature ", "qemu_cmd_detect", ""}) {
        Framework::Policy current("x");
        EXPECT_FALSE(Refresh(feature, CommandPolicy({kRule}), &current)) << feature;
        EXPECT_TRUE(current.m_replaced);
    }
    EXPECT_FALSE(IsRegistered(kTask));
    EXPECT_TRUE(m_log.Lines().empty());
}

TEST_F(ModuleTest, AGoodPolicyCarriesItsEnvelopeAndStartsTheTask) {
    Framework::Policy current("x");
    ASSERT_TRUE(Refresh(kFeature, CommandPolicy({kRule}, true, "h1"), &current));
    const auto& policy = dynamic_cast<Engine::QemuCmdDetectPolicy&>(*m_policy);
    EXPECT_EQ(policy.m_featureName, kFeature);
    EXPECT_EQ(policy.m_hash, "h1");
    EXPECT_TRUE(policy.m_enabled);
    EXPECT_TRUE(current.m_replaced);
    EXPECT_TRUE(IsRegistered(kTask));
    EXPECT_EQ(m_log.Count(kInformation,
                          "VmEscapeModule parse the feature policy(name=qemu_cmd_detect_feature) "
                          "success"),
              1U);
    EXPECT_EQ(
        m_log.Count(kInformation, "VmEscapeModule register detect task(name=qemu_cmd_detect_task)"),
        1U);
}

TEST_F(ModuleTest, EnabledAndHashMayBeAbsent) {
    ASSERT_TRUE(
        Refresh(kFeature, R"({"module_name":"vmescape_module","content":{"monitor_list":[)" +
                              std::string(kRule) + "]}}"));
    const auto& policy = dynamic_cast<Framework::FeaturePolicy&>(*m_policy);
    EXPECT_TRUE(policy.m_enabled);
    EXPECT_EQ(policy.m_hash, "");
    EXPECT_TRUE(IsRegistered(kTask));
}

TEST_F(ModuleTest, EnvelopeValuesOfAnotherTypeCountAsAbsent) {
    const std::string content = R"("content":{"monitor_list":[)" + std::string(kRule) + "]}}";
    ASSERT_TRUE(Refresh(kFeature,
                        R"({"module_name":"vmescape_module","enabled":"no","hash":7,)" + content));
    const auto& policy = dynamic_cast<Framework::FeaturePolicy&>(*m_policy);
    EXPECT_TRUE(policy.m_enabled);
    EXPECT_EQ(policy.m_hash, "");
    EXPECT_FALSE(Refresh(kFeature, R"({"module_name":["vmescape_module"],)" + content));
    EXPECT_EQ(m_log.Texts(kError),
              Strings{"The policy content(moduleName=) does not belong to VMEscapeDetectModule"});
}

TEST_F(ModuleTest, ADisabledPolicyIsReturnedAndStopsTheTask) {
    ASSERT_TRUE(Refresh(kFeature, CommandPolicy({kRule})));
    ASSERT_TRUE(Refresh(kFeature, CommandPolicy({kRule}, false)));
    EXPECT_FALSE(IsRegistered(kTask));
    EXPECT_FALSE(dynamic_cast<Framework::FeaturePolicy&>(*m_policy).m_enabled);
    Strings lines = LinesOfTheModule();
    lines.erase(lines.begin(), lines.end() - 2);
    EXPECT_EQ(
        lines,
        (Strings{"VmEscapeModule parse the feature policy(name=qemu_cmd_detect_feature) success",
                 "VmEscapeModule unregister detect task(name=qemu_cmd_detect_task)"}));
    m_log.Clear();
    ASSERT_TRUE(Refresh(kFeature, CommandPolicy({kRule}, false)));
    EXPECT_EQ(m_log.Count(kInformation,
                          "VmEscapeModule unregister detect task(name=qemu_cmd_detect_task)"),
              1U);
}

TEST_F(ModuleTest, AFailedParseIsAnErrorMarksTheCurrentPolicyAndLeavesTheTaskRunning) {
    Framework::Policy current("x");
    ASSERT_TRUE(Refresh(kFeature, CommandPolicy({kRule})));
    m_log.Clear();
    EXPECT_FALSE(Refresh(kFeature, CommandPolicy({}, false), &current));
    EXPECT_TRUE(current.m_replaced);
    EXPECT_TRUE(IsRegistered(kTask));
    EXPECT_EQ(
        m_log.Texts(kError),
        Strings{"VmEscapeModule parse the feature policy(name=qemu_cmd_detect_feature) failed"});
}

TEST_F(ModuleTest, ASecondEnablingOnlyWritesItsLines) {
    ASSERT_TRUE(Refresh(kFeature, CommandPolicy({kRule})));
    m_log.Clear();
    ASSERT_TRUE(Refresh(kFeature, CommandPolicy({kRule})));
    EXPECT_EQ(
        m_log.Texts(kInformation),
        (Strings{"VmEscapeModule parse the feature policy(name=qemu_cmd_detect_feature) success",
                 "Task(qemu_cmd_detect_task) already exists and does not need to be "
                 "registered.",
                 "VmEscapeModule register detect task(name=qemu_cmd_detect_task)"}));
}

TEST_F(ModuleTest, EachFeatureHasItsPolicyAndItsTask) {
    const std::string head = R"({"module_name":"vmescape_module","enabled":true,"content":{)";
    EXPECT_TRUE(Refresh("qemu_file_detect_feature",
                        head + R"("senstive_dirs":[],"monitor_list":[)"
                               R"({"virtmonitor":"qemu-kvm","filelist":[]}]}})"));
    EXPECT_TRUE(Refresh("qemu_port_detect_feature",
                        head + R"("monitor_list":[{"virtmonitor":"qemu-kvm","portlist":[]}]}})"));
    EXPECT_TRUE(IsRegistered("qemu_file_detect_task"));
    EXPECT_TRUE(IsRegistered("qemu_port_detect_task"));
    EXPECT_FALSE(IsRegistered("qemu_cmd_detect_task"));
}

TEST_F(ModuleTest, APolicyOfAnotherFeatureIsRefused) {
    EXPECT_FALSE(Refresh("qemu_file_detect_feature", CommandPolicy({kRule})));
    EXPECT_FALSE(Refresh("qemu_port_detect_feature", CommandPolicy({kRule})));
    EXPECT_FALSE(IsRegistered("qemu_file_detect_task"));
    EXPECT_FALSE(IsRegistered("qemu_port_detect_task"));
}

TEST(VmEscapeDetectModuleWithoutEngine, ARefusedRegistrationIsAnErrorAndTheTaskIsKept) {
    const CapturedLog log;
    Poco::AutoPtr<VmEscapeDetectModule> module = new VmEscapeDetectModule;
    EXPECT_FALSE(module->RegisterDetectTask(kTask));
    EXPECT_EQ(log.Count(kError, "VmEscape Module register the task(qemu_cmd_detect_task) failed."),
              1U);
}

TEST(VmEscapeDetectModuleWithoutEngine, APolicyIsKeptAndItsLinesAreWrittenAllTheSame) {
    const CapturedLog log{Poco::Message::PRIO_INFORMATION};
    Poco::AutoPtr<VmEscapeDetectModule> module = new VmEscapeDetectModule;
    Framework::Policy* none = nullptr;
    const std::unique_ptr<Framework::Policy> policy(
        module->RefreshFeaturePolicy(kFeature, CommandPolicy({kRule}), none));
    EXPECT_NE(policy, nullptr);
    Strings lines;
    for (const CapturedLog::Line& line : log.Lines()) {
        lines.push_back(line.text);
    }
    EXPECT_EQ(
        lines,
        (Strings{"VmEscapeModule parse the feature policy(name=qemu_cmd_detect_feature) success",
                 "VmEscape Module register the task(qemu_cmd_detect_task) failed.",
                 "VmEscapeModule register detect task(name=qemu_cmd_detect_task)"}));
}

TEST(VmEscapeDetectModuleWithoutEngine, ATaskThatWasRefusedIsRegisteredLater) {
    Poco::AutoPtr<VmEscapeDetectModule> module = new VmEscapeDetectModule;
    std::weak_ptr<Framework::Inbox> inbox;
    Framework::Task* first = nullptr;
    {
        TestSupport::ScriptedAgent agent;
        ASSERT_TRUE(module->RegisterDetectTask(kTask));
        first = agent.Engine().FindTask(kTask);
        inbox = first->GetInbox();
        module->UnInit();
    }
    EXPECT_FALSE(module->RegisterDetectTask(kTask));
    EXPECT_FALSE(inbox.expired());
    TestSupport::ScriptedAgent agent;
    EXPECT_TRUE(module->RegisterDetectTask(kTask));
    EXPECT_EQ(agent.Engine().FindTask(kTask), first);
    module->UnInit();
}

TEST(VmEscapeDetectModuleWithoutEngine, MayBeDestroyedWithoutEverHavingHadATask) {
    Poco::AutoPtr<VmEscapeDetectModule> module = new VmEscapeDetectModule;
    EXPECT_EQ(module->referenceCount(), 1);
}

}  // namespace
