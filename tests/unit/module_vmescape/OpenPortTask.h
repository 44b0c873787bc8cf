#pragma once

#include "QemuPortDetectPolicy.h"
#include "QemuPortDetectTask.h"
#include "net_collect/NetProcsFullTask.h"
#include "support/ScriptedTasks.h"

#include <Poco/AutoPtr.h>

#include <atomic>
#include <initializer_list>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

/// The port task with its insides open.
class OpenPortTask : public Engine::QemuPortDetectTask {
public:
    using QemuPortDetectTask::m_netWarnInfo;

    OpenPortTask() = default;
    ~OpenPortTask() override = default;

    /// Works by a policy of these rules from now on.
    void Use(const std::vector<std::string>& rules) {
        auto policy = std::make_shared<Engine::QemuPortDetectPolicy>("qemu_port_detect_feature");
        policy->Parse(TestSupport::CommandPolicy(rules));
        AttachFeaturePolicy(policy);
    }
};

using OpenPortTaskPtr = Poco::AutoPtr<OpenPortTask>;
using NetInfo = Engine::NetProcsMessage::netProcInfo;
using NetInfoPtr = std::shared_ptr<NetInfo>;

/// A socket as a test describes it, with its holders.
inline NetInfoPtr SocketAt(int port, std::initializer_list<TestSupport::ProcInfoPtr> holders) {
    auto info = std::make_shared<NetInfo>();
    info->m_port = port;
    info->m_protocol = 6;
    int nobody = 0;
    for (const TestSupport::ProcInfoPtr& holder : holders) {
        info->m_processes[holder == nullptr ? nobody++ : holder->m_pid] = holder;
    }
    return info;
}

/// Stands under "netproc_full_task" and gives the sockets that the test put in.
class ScriptedNetTask : public Engine::NetProcsFullTask {
public:
    ScriptedNetTask()
        : Engine::NetProcsFullTask("netproc_full_task", "", Framework::TaskCondition::RESIDENT_TASK,
                                   1) {}
    ~ScriptedNetTask() override = default;

    void GetNetCacheMap(std::map<long, NetInfoPtr>& table) override {
        const SDK::LockGuard lock(m_mutex);
        // Adds only, so that what a caller had in its table before is seen.
        table.insert(m_table.begin(), m_table.end());
        ++m_reads;
    }
    void Add(long key, const NetInfoPtr& info) {
        const SDK::LockGuard lock(m_mutex);
        m_table[key] = info;
    }
    void Clear() {
        const SDK::LockGuard lock(m_mutex);
        m_table.clear();
    }
    int Reads() const { return m_reads; }

private:
    SDK::Mutex m_mutex;
    std::map<long, NetInfoPtr> m_table SDK_GUARDED_BY(m_mutex);
    std::atomic<int> m_reads{0};
};
