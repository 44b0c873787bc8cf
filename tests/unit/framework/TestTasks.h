#pragma once

#include "framework/Engine.h"
#include "framework/Module.h"
#include "framework/Task.h"

#include <Poco/AutoPtr.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

/// A task that waits for messages until it is stopped and counts what happened to it.
class CountingTask : public Framework::Task {
public:
    explicit CountingTask(const std::string& name = "counting_task",
                          const std::string& feature = "")
        : Framework::Task(name, feature, Framework::TaskCondition::RESIDENT_TASK, 64) {}
    ~CountingTask() override = default;

    int Init() override {
        ++m_inits;
        m_policyAtInit = GetFeaturePolicy();
        if (m_atInit) {
            m_atInit();
        }
        return m_initResult;
    }
    int UnInit() override {
        ++m_unInits;
        return Framework::Task::UnInit();
    }
    int Run() override {
        ++m_runs;
        if (m_atRun) {
            m_atRun();
        }
        while (state() != TASK_CANCELLING) {
            if (GetEventWaiter().WaitAndHandleEvent(10000, 128) == -1) {
                m_handled += HandleQueuedMsgs(128);
            }
        }
        return 0;
    }

    std::atomic<int> m_inits{0};
    std::atomic<int> m_unInits{0};
    std::atomic<int> m_runs{0};
    std::atomic<int> m_handled{0};
    int m_initResult = 0;
    std::function<void()> m_atInit;
    std::function<void()> m_atRun;
    std::shared_ptr<Framework::FeaturePolicy> m_policyAtInit;
};

/// A module that tests reach into.
class OpenModule : public Framework::Module {
public:
    explicit OpenModule(const std::string& name = "open_module") : Framework::Module(name) {}
    int Init() override {
        m_events.push_back("init");
        return m_initResult;
    }
    int UnInit() override {
        m_events.push_back("uninit");
        return Framework::Module::UnInit();
    }
    int m_initResult = 0;
    std::vector<std::string> m_events;
};

/// A feature policy whose task policy stands below it.
class OneTaskPolicy : public Framework::FeaturePolicy {
public:
    OneTaskPolicy(const std::string& feature, const std::string& task)
        : Framework::FeaturePolicy(feature) {
        Add(new Framework::TaskPolicy(task));
    }
    ~OneTaskPolicy() override {
        if (m_freed != nullptr) {
            ++*m_freed;
        }
    }
    std::atomic<int>* m_freed = nullptr;
};

using EnginePtr = Poco::AutoPtr<Framework::Engine>;
using CountingTaskPtr = Poco::AutoPtr<CountingTask>;
