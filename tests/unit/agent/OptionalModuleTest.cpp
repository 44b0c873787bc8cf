#include "OptionalModule.h"

#include "framework/Engine.h"
#include "support/CapturedLog.h"

#include <gtest/gtest.h>

namespace {

class Sample : public Framework::Module {
public:
    Sample(int result, std::vector<std::string>& steps)
        : Framework::Module("sample"), m_result(result), m_steps(steps) {}
    int Init() override {
        m_steps.emplace_back("init");
        return m_result;
    }
    int UnInit() override {
        m_steps.emplace_back("uninit");
        return Framework::Module::UnInit();
    }

private:
    const int m_result;
    std::vector<std::string>& m_steps;
};

class OptionalModule : public testing::Test {
protected:
    void Run(int result) {
        m_engine->addSubsystem(new Agent::OptionalModule(new Sample(result, m_steps)));
        m_engine->StartModules();
        m_engine->StopModules();
    }

    using Steps = std::vector<std::string>;

    TestSupport::CapturedLog m_log;
    Steps m_steps;
    Poco::AutoPtr<Framework::Engine> m_engine = new Framework::Engine;
};

TEST_F(OptionalModule, StartsAndStopsTheModuleThatItStandsFor) {
    Run(0);
    EXPECT_EQ(m_steps, (Steps{"init", "uninit"}));
}

TEST_F(OptionalModule, GoesOnWithoutAModuleThatDoesNotStartAndSaysSo) {
    EXPECT_NO_THROW(Run(-7));
    EXPECT_EQ(m_steps, Steps{"init"});
    EXPECT_EQ(m_log.Count(Poco::Message::PRIO_WARNING,
                          "Module(sample) is optional and does not start(-7), the agent goes on "
                          "without it"),
              1U);
}

TEST_F(OptionalModule, CarriesTheModulesName) {
    EXPECT_STREQ(Agent::OptionalModule(new Sample(0, m_steps)).name(), "sample");
}

}  // namespace
