#include "framework/Module.h"

#include "TestTasks.h"
#include "support/CapturedLog.h"

#include <Poco/Exception.h>
#include <Poco/Util/AbstractConfiguration.h>
#include <gtest/gtest.h>

namespace {

using Framework::Engine;
using ModulePtr = Poco::AutoPtr<OpenModule>;
using Strings = std::vector<std::string>;

class NullCallback : public Framework::AbstractPolicyCallback {
public:
    Framework::Policy* invoke(const std::string&, const std::string&,
                              Framework::Policy*&) override {
        return nullptr;
    }
};

class ModuleTest : public testing::Test {
protected:
    void Add(ModulePtr& module) { m_engine->addSubsystem(module.duplicate()); }

    EnginePtr m_engine = new Engine;
    ModulePtr m_module = new OpenModule;
};

TEST_F(ModuleTest, IsStartedAndStoppedByTheEngine) {
    Add(m_module);
    m_engine->StartModules();
    EXPECT_EQ(m_module->m_events, Strings{"init"});
    m_engine->StopModules();
    m_engine->StopModules();
    EXPECT_EQ(m_module->m_events, (Strings{"init", "uninit"}));
}

TEST_F(ModuleTest, OneThatRefusesToStartEndsTheStartAndStopsTheOthers) {
    ModulePtr refusing = new OpenModule("refusing");
    refusing->m_initResult = 5;
    Add(m_module);
    Add(refusing);
    try {
        m_engine->StartModules();
        FAIL() << "the start was not refused";
    } catch (const Poco::Exception& exception) {
        EXPECT_EQ(exception.message(), "module refusing does not start, Init returned 5");
    }
    EXPECT_EQ(m_module->m_events, (Strings{"init", "uninit"}));
    EXPECT_EQ(refusing->m_events, Strings{"init"});
}

TEST_F(ModuleTest, UnregistersWhatItLeftRegistered) {
    CountingTaskPtr task = new CountingTask;
    Add(m_module);
    m_engine->StartModules();
    ASSERT_EQ(m_module->RegisterTask(task, false), 0);
    m_module->RegisterPolicyCallback("10001", new NullCallback);
    m_engine->StopModules();
    EXPECT_EQ(m_engine->FindTask("counting_task"), nullptr);
    EXPECT_EQ(task->m_unInits, 1);
    EXPECT_EQ(m_engine->DeliverPolicy("10001", "feature", "{}"), Engine::PolicyResult::NO_RECEIVER);
}

TEST_F(ModuleTest, FindsTasksOfOtherModules) {
    CountingTaskPtr task = new CountingTask;
    ModulePtr other = new OpenModule("other");
    ASSERT_EQ(other->RegisterTask(task, true), 0);
    EXPECT_EQ(m_module->FindTask("counting_task"), task.get());
    EXPECT_EQ(m_module->UnRegisterTask("counting_task"), 0);
}

TEST_F(ModuleTest, TellsItsName) { EXPECT_STREQ(m_module->name(), "open_module"); }

TEST(ModuleWithoutEngine, RefusesEverythingAndKeepsNothing) {
    ModulePtr module = new OpenModule;
    CountingTaskPtr task = new CountingTask;
    EXPECT_EQ(module->RegisterTask(task, false), -1);
    EXPECT_EQ(module->UnRegisterTask("counting_task"), -1);
    EXPECT_EQ(module->FindTask("counting_task"), nullptr);
    module->RegisterPolicyCallback("10001", new NullCallback);  // freed: LeakSanitizer watches
    EXPECT_EQ(module->UnInit(), 0);
}

TEST_F(ModuleTest, ReadsANumberOfTheConfigurationWithinItsBounds) {
    struct Open : Framework::Module {
        using Module::ReadNumber;
    };
    const TestSupport::CapturedLog log;
    EXPECT_EQ(Open::ReadNumber("some.number", 7, 100), 7U) << "not set";
    for (const char* good : {"1", "100"}) {
        m_engine->config().setString("some.number", good);
        EXPECT_EQ(std::to_string(Open::ReadNumber("some.number", 7, 100)), good);
    }
    EXPECT_TRUE(log.Lines().empty());
    for (const char* bad : {"0", "101"}) {
        m_engine->config().setString("some.number", bad);
        EXPECT_EQ(Open::ReadNumber("some.number", 7, 100), 7U);
        EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, "Configuration some.number is " +
                                                           std::string(bad) +
                                                           ", expected 1 to 100. 7 is used."),
                  1U);
    }
}

}  // namespace
