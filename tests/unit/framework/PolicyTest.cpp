#include "framework/Policy.h"

#include "TestTasks.h"
#include "support/CapturedLog.h"

#include <gtest/gtest.h>

namespace {

using Framework::CompositePolicy;
using Framework::FeaturePolicy;
using Framework::Policy;
using Framework::TaskPolicy;

TEST(CompositePolicy, OwnsItsChildren) {
    std::atomic<int> freed{0};
    {
        CompositePolicy composite("root");
        auto* child = new OneTaskPolicy("child", "task");
        child->m_freed = &freed;
        composite.Add(child);
        EXPECT_EQ(composite.Find("child"), child);
    }
    EXPECT_EQ(freed, 1);
}

TEST(CompositePolicy, ANewChildReplacesOneOfTheSameName) {
    CompositePolicy composite("root");
    std::atomic<int> freed{0};
    auto* first = new OneTaskPolicy("child", "task");
    first->m_freed = &freed;
    auto* second = new OneTaskPolicy("child", "task");
    composite.Add(first);
    composite.Add(second);
    EXPECT_EQ(freed, 1);
    EXPECT_EQ(composite.Find("child"), second);
}

TEST(CompositePolicy, IgnoresANullChildAndDoesNotFindOthers) {
    CompositePolicy composite("root");
    composite.Add(nullptr);
    EXPECT_EQ(composite.Find("child"), nullptr);
}

TEST(FeaturePolicy, ChangesWithItsHashOrItsText) {
    FeaturePolicy policy("feature");
    policy.m_hash = "1";
    policy.m_content = "text";
    EXPECT_FALSE(policy.PolicyChanged("1", "text"));
    EXPECT_TRUE(policy.PolicyChanged("2", "text"));
    EXPECT_TRUE(policy.PolicyChanged("1", "other"));
}

TEST(Policy, WithoutAnythingOfItsOwnNeverChanges) {
    Policy policy("name");
    EXPECT_FALSE(policy.PolicyChanged("any", "thing"));
    EXPECT_TRUE(policy.Parse("anything"));
}

TEST(TaskPolicy, AcceptsNoConditionOrAnObject) {
    TaskPolicy policy("task");
    EXPECT_TRUE(policy.ParseCondition(R"({"hour":3})"));
    EXPECT_EQ(policy.GetCondition(), R"({"hour":3})");
    EXPECT_TRUE(policy.ParseCondition(""));
    EXPECT_EQ(policy.GetCondition(), "");
}

TEST(TaskPolicy, RefusesAnyOtherConditionAndKeepsTheOldOne) {
    const TestSupport::CapturedLog log;
    TaskPolicy policy("task");
    ASSERT_TRUE(policy.ParseCondition("{}"));
    EXPECT_FALSE(policy.ParseCondition("[]"));
    EXPECT_FALSE(policy.ParseCondition("no json"));
    EXPECT_EQ(policy.GetCondition(), "{}");
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR,
                        "The run condition of task(task) is refused: not an object"),
              1U);
}

TEST(TaskPolicy, DispatchAttachesTheFeaturePolicyToItsTask) {
    EnginePtr engine = new Framework::Engine;
    CountingTaskPtr task = new CountingTask;
    ASSERT_EQ(engine->RegisterTask(task, true), 0);
    const auto policy = std::make_shared<OneTaskPolicy>("feature", "counting_task");
    policy->Dispatch(policy.get());
    EXPECT_EQ(task->GetFeaturePolicy(), policy);
    engine->UnRegisterTask("counting_task");
}

TEST(TaskPolicy, DispatchWithoutARegisteredTaskDoesNothing) {
    EnginePtr engine = new Framework::Engine;
    const auto policy = std::make_shared<OneTaskPolicy>("feature", "nobody");
    policy->Dispatch(policy.get());
    EXPECT_EQ(policy.use_count(), 1);
}

}  // namespace
