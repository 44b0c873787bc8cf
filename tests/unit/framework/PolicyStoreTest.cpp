#include "TestTasks.h"
#include "support/CapturedLog.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using Framework::AbstractPolicyCallback;
using Framework::Engine;
using Framework::FeaturePolicy;
using Framework::Policy;
using Result = Framework::Engine::PolicyResult;

/// Answers as the test says.
class ScriptedCallback : public AbstractPolicyCallback {
public:
    Policy* invoke(const std::string& featureName, const std::string& policyContent,
                   Policy*& currentPolicy) override {
        ++m_calls;
        m_current = currentPolicy;
        return m_answer ? m_answer(featureName, policyContent) : nullptr;
    }
    int m_calls = 0;
    Policy* m_current = nullptr;
    std::function<Policy*(const std::string&, const std::string&)> m_answer;
};

class PolicyStoreTest : public testing::Test {
protected:
    PolicyStoreTest() { m_engine->RegisterPolicyCallback("10001", m_callback); }
    ~PolicyStoreTest() override { m_engine->UnRegisterTask("counting_task"); }

    static Policy* Accept(const std::string& feature, const std::string& /*content*/) {
        return new OneTaskPolicy(feature, "counting_task");
    }

    EnginePtr m_engine = new Engine;
    CountingTaskPtr m_task = new CountingTask("counting_task", "feature");
    ScriptedCallback* m_callback = new ScriptedCallback;  // the engine's
};

TEST_F(PolicyStoreTest, AnAcceptedPolicyIsInForce) {
    m_callback->m_answer = Accept;
    EXPECT_EQ(m_engine->DeliverPolicy("10001", "feature", R"({"hash":"1"})"), Result::ACCEPTED);
    ASSERT_NE(m_engine->GetPolicy("feature"), nullptr);
    EXPECT_EQ(m_engine->GetPolicy("feature")->m_content, R"({"hash":"1"})");
    EXPECT_EQ(m_engine->GetPolicy("other"), nullptr);
}

TEST_F(PolicyStoreTest, AnUnknownKeyHasNoReceiver) {
    const TestSupport::CapturedLog log;
    EXPECT_EQ(m_engine->DeliverPolicy("1", "feature", "{}"), Result::NO_RECEIVER);
    EXPECT_TRUE(log.Contains("Nobody receives policies of the key(1), policy(name=feature)"));
}

TEST_F(PolicyStoreTest, TheSameTextAgainIsANoOpThatIsLogged) {
    const TestSupport::CapturedLog log;
    const auto answer = [](const std::string& feature, const std::string&) {
        auto* policy = new OneTaskPolicy(feature, "counting_task");
        policy->m_hash = "1";
        return policy;
    };
    m_callback->m_answer = answer;
    m_engine->DeliverPolicy("10001", "feature", R"({"hash":"1"})");
    EXPECT_EQ(m_engine->DeliverPolicy("10001", "feature", R"({"hash":"1"})"), Result::UNCHANGED);
    EXPECT_EQ(m_callback->m_calls, 1);
    EXPECT_EQ(log.Count(Poco::Message::PRIO_INFORMATION,
                        "The policy(name=feature) is in force already, nothing changes"),
              1U);
}

TEST_F(PolicyStoreTest, ARefusedPolicyLeavesTheOldOneInForceAndUnmarked) {
    const TestSupport::CapturedLog log;
    m_callback->m_answer = Accept;
    m_engine->DeliverPolicy("10001", "feature", "{}");
    const auto before = m_engine->GetPolicy("feature");
    before->m_replaced = true;  // as a receiver does before it knows the outcome
    m_callback->m_answer = nullptr;
    EXPECT_EQ(m_engine->DeliverPolicy("10001", "feature", "broken"), Result::REFUSED);
    EXPECT_EQ(m_engine->GetPolicy("feature"), before);
    EXPECT_FALSE(before->m_replaced);
    EXPECT_TRUE(log.Contains("The policy(name=feature) is refused, what was in force stays"));
}

TEST_F(PolicyStoreTest, TheReceiverSeesThePolicyInForce) {
    m_callback->m_answer = Accept;
    m_engine->DeliverPolicy("10001", "feature", "{}");
    EXPECT_EQ(m_callback->m_current, nullptr);
    const auto first = m_engine->GetPolicy("feature");
    m_engine->DeliverPolicy("10001", "feature", "{ }");
    EXPECT_EQ(m_callback->m_current, first.get());
}

TEST_F(PolicyStoreTest, AReceiverThatThrowsRefuses) {
    const TestSupport::CapturedLog log;
    m_callback->m_answer = [](const std::string&, const std::string&) -> Policy* {
        throw std::runtime_error("on purpose");
    };
    EXPECT_EQ(m_engine->DeliverPolicy("10001", "feature", "{}"), Result::REFUSED);
    EXPECT_TRUE(log.Contains("The receiver of policy(name=feature) failed: on purpose"));
}

TEST_F(PolicyStoreTest, AResultThatIsNoFeaturePolicyIsFreedAndRefused) {
    m_callback->m_answer = [](const std::string& feature, const std::string&) {
        return new Policy(feature);
    };
    EXPECT_EQ(m_engine->DeliverPolicy("10001", "feature", "{}"), Result::REFUSED);
}

TEST_F(PolicyStoreTest, ATaskRegisteredInsideTheCallbackStartsWithThatPolicyAttached) {
    int initsDuringCallback = -1;
    m_callback->m_answer = [&](const std::string& feature, const std::string& content) {
        EXPECT_EQ(m_engine->RegisterTask(m_task, false), 0);
        EXPECT_EQ(m_engine->FindTask("counting_task"), m_task.get());
        initsDuringCallback = m_task->m_inits;
        return Accept(feature, content);
    };
    m_engine->DeliverPolicy("10001", "feature", "{}");
    EXPECT_EQ(initsDuringCallback, 0);
    EXPECT_EQ(m_task->m_inits, 1);
    ASSERT_NE(m_task->m_policyAtInit, nullptr);
    EXPECT_EQ(m_task->m_policyAtInit, m_engine->GetPolicy("feature"));
}

TEST_F(PolicyStoreTest, ATaskRegisteredAndUnregisteredInsideTheCallbackNeverStarts) {
    m_callback->m_answer = [&](const std::string& feature, const std::string& content) {
        EXPECT_EQ(m_engine->RegisterTask(m_task, false), 0);
        EXPECT_EQ(m_engine->UnRegisterTask("counting_task"), 0);
        return Accept(feature, content);
    };
    EXPECT_EQ(m_engine->DeliverPolicy("10001", "feature", "{}"), Result::ACCEPTED);
    EXPECT_EQ(m_task->m_inits, 0);
    EXPECT_EQ(m_task->m_unInits, 0);
}

TEST_F(PolicyStoreTest, ATaskRegisteredLaterGetsThePolicyInForce) {
    m_callback->m_answer = Accept;
    m_engine->DeliverPolicy("10001", "feature", "{}");
    ASSERT_EQ(m_engine->RegisterTask(m_task, false), 0);
    EXPECT_EQ(m_task->m_policyAtInit, m_engine->GetPolicy("feature"));
}

TEST_F(PolicyStoreTest, ADisabledPolicyReplacesTheOldOneToo) {
    m_callback->m_answer = Accept;
    m_engine->DeliverPolicy("10001", "feature", "{}");
    const auto before = m_engine->GetPolicy("feature");
    m_callback->m_answer = [](const std::string& feature, const std::string& content) {
        Policy* policy = Accept(feature, content);
        static_cast<FeaturePolicy*>(policy)->m_enabled = false;
        return policy;
    };
    EXPECT_EQ(m_engine->DeliverPolicy("10001", "feature", R"({"enabled":false})"),
              Result::ACCEPTED);
    EXPECT_NE(m_engine->GetPolicy("feature"), before);
}

TEST_F(PolicyStoreTest, TheNewestCallbackOfAKeyCounts) {
    auto* second = new ScriptedCallback;
    second->m_answer = Accept;
    m_engine->RegisterPolicyCallback("10001", second);
    EXPECT_EQ(m_engine->DeliverPolicy("10001", "feature", "{}"), Result::ACCEPTED);
    m_engine->DropPolicyCallback("10001");
    EXPECT_EQ(m_engine->DeliverPolicy("10001", "feature", "{ }"), Result::NO_RECEIVER);
}

}  // namespace
