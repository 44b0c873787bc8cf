#include "framework/Engine.h"

#include "TestTasks.h"

#include <gtest/gtest.h>

namespace {

using Framework::Engine;

TEST(Engine, IsTheApplicationOfTheProcessWhileItLives) {
    EXPECT_EQ(Engine::Current(), nullptr);
    {
        EnginePtr engine = new Engine;
        EXPECT_EQ(Engine::Current(), engine.get());
        EXPECT_EQ(dynamic_cast<Engine*>(&Poco::Util::Application::instance()), engine.get());
    }
    EXPECT_EQ(Engine::Current(), nullptr);
}

TEST(Engine, StopsModulesInTheReverseOrderOfTheirStart) {
    std::vector<std::string> order;
    class Noting : public Framework::Module {
    public:
        Noting(const std::string& name, std::vector<std::string>& order)
            : Framework::Module(name), m_order(order) {}
        int Init() override {
            m_order.push_back(std::string("start ") + name());
            return 0;
        }
        int UnInit() override {
            m_order.push_back(std::string("stop ") + name());
            return Framework::Module::UnInit();
        }

    private:
        std::vector<std::string>& m_order;
    };
    EnginePtr engine = new Engine;
    engine->addSubsystem(new Noting("collector", order));
    engine->addSubsystem(new Noting("product", order));
    engine->StartModules();
    engine->StopModules();
    EXPECT_EQ(order, (std::vector<std::string>{"start collector", "start product", "stop product",
                                               "stop collector"}));
}

TEST(Engine, StopsItsModulesWhenItEnds) {
    Poco::AutoPtr<OpenModule> module = new OpenModule;
    {
        EnginePtr engine = new Engine;
        engine->addSubsystem(module.duplicate());
        engine->StartModules();
    }
    EXPECT_EQ(module->m_events, (std::vector<std::string>{"init", "uninit"}));
}

TEST(Engine, DeliversNothingToAnUnknownTask) {
    EnginePtr engine = new Engine;
    EXPECT_EQ(engine->DeliverMessage("nobody", std::make_shared<Framework::Message>("test")), -1);
}

}  // namespace
