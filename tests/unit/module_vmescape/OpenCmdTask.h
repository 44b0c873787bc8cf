#pragma once

#include "QemuCmdDetectPolicy.h"
#include "QemuCmdDetectTask.h"
#include "support/ScriptedTasks.h"

#include <Poco/AutoPtr.h>

#include <memory>
#include <string>
#include <tuple>
#include <vector>

/// The command task with its insides open.
class OpenCmdTask : public Engine::QemuCmdDetectTask {
public:
    using QemuCmdDetectTask::m_cmdWarnInfo;
    using QemuCmdDetectTask::m_exitPidMap;
    using QemuCmdDetectTask::m_monitorPidMap;
    using QemuCmdDetectTask::m_procCmdCache;
    using QemuCmdDetectTask::m_shellList;

    OpenCmdTask() = default;
    ~OpenCmdTask() override = default;

    /// Works by a policy of these rules from now on.
    void Use(const std::vector<std::string>& rules) {
        auto policy = std::make_shared<Engine::QemuCmdDetectPolicy>("qemu_cmd_detect_feature");
        policy->Parse(TestSupport::CommandPolicy(rules));
        AttachFeaturePolicy(policy);
    }
};

/// A deny list for "qemu-kvm" that lists "wget".
inline const char* const DENY_RULE = R"({"virtcmd":"qemu-kvm","action":false,"cmdlist":["wget"]})";

/// An allow list for "qemu-kvm" that lists "/usr/bin/ok".
inline const char* const ALLOW_RULE = R"({"virtcmd":"qemu-kvm","cmdlist":["/usr/bin/ok"]})";

using OpenCmdTaskPtr = Poco::AutoPtr<OpenCmdTask>;
