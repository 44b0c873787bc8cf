#include "VmEscapeDetectModule.h"

#include "QemuCmdDetectPolicy.h"
#include "QemuCmdDetectTask.h"
#include "QemuFileDetectPolicy.h"
#include "QemuFileDetectTask.h"
#include "QemuPortDetectPolicy.h"
#include "QemuPortDetectTask.h"
#include "VmEscapeLog.h"
#include "sdk/JsonUtils.h"

#include <json/value.h>

#include <algorithm>
#include <array>
#include <memory>
#include <string_view>

namespace Engine {

namespace {

constexpr const char* kModuleName = "vmescape_module";
constexpr const char* kPolicyKey =
    "10001";  // under which the agent delivers this module's policies

constexpr const char* kCmdTask = "qemu_cmd_detect_task";
constexpr const char* kFileTask = "qemu_file_detect_task";
constexpr const char* kPortTask = "qemu_port_detect_task";

using FeaturePolicyPtr = std::unique_ptr<Framework::FeaturePolicy>;

template <typename PolicyT>
FeaturePolicyPtr NewPolicy(const std::string& featureName) {
    return std::make_unique<PolicyT>(featureName);
}

/// One detection: the feature that configures it, its policy and its task.
struct Feature {
    std::string_view m_featureName;
    const char* m_taskName;
    FeaturePolicyPtr (*m_newPolicy)(const std::string& featureName);
};

constexpr std::array<Feature, 3> kFeatures = {{
    {"qemu_cmd_detect_feature", kCmdTask, NewPolicy<QemuCmdDetectPolicy>},
    {"qemu_file_detect_feature", kFileTask, NewPolicy<QemuFileDetectPolicy>},
    {"qemu_port_detect_feature", kPortTask, NewPolicy<QemuPortDetectPolicy>},
}};

/// The task behind the pointer, made on first use with a reference that is never given back.
template <typename TaskT>
Framework::Task* GetOrCreate(TaskT*& task) {
    if (task == nullptr) {
        task = new TaskT;
        task->duplicate();
    }
    return task;
}

template <typename TaskT>
void Destroy(TaskT*& task) {
    delete task;
    task = nullptr;
}

}  // namespace

VmEscapeDetectModule::VmEscapeDetectModule()
    : Framework::Module(kModuleName),
      m_logger(GetVmEscapeLogger()),
      m_cmdDetectTask(nullptr),
      m_fileDetectTask(nullptr),
      m_portDetectTask(nullptr) {}

VmEscapeDetectModule::~VmEscapeDetectModule() {
    Destroy(m_cmdDetectTask);
    Destroy(m_fileDetectTask);
    Destroy(m_portDetectTask);
}

int VmEscapeDetectModule::Init() {
    SDK::LogInformation(m_logger, "VmEscapeDetectModule Init start");
    RegisterPolicyCallback(kPolicyKey, new Framework::PolicyCallback<VmEscapeDetectModule>(
                                           this, &VmEscapeDetectModule::RefreshFeaturePolicy));
    Framework::Module::Init();
    SDK::LogInformation(m_logger, "VmEscapeDetectModule Init end");
    return 0;
}

int VmEscapeDetectModule::UnInit() {
    SDK::LogInformation(m_logger, "VmEscapeDetectModule UnInit start");
    for (const char* taskName : {kCmdTask, kFileTask, kPortTask}) {
        UnRegisterDetectTask(taskName);
    }
    Framework::Module::UnInit();
    SDK::LogInformation(m_logger, "VmEscapeDetectModule UnInit end");
    return 0;
}

void VmEscapeDetectModule::UnRegisterDetectTask(const std::string& taskName) {
    if (UnRegisterTask(taskName) == 0) {
        SDK::LogInformation(m_logger, "VmEscapeDetectModule unregister task(%s)", taskName);
    }
}

bool VmEscapeDetectModule::RegisterDetectTask(const std::string& taskName) {
    if (FindTask(taskName) != nullptr) {
        SDK::LogInformation(m_logger, "Task(%s) already exists and does not need to be registered.",
                            taskName);
        return false;
    }
    Framework::Task* task = GetDetectTask(taskName);
    if (task == nullptr) {
        return false;
    }
    if (RegisterTask(task, false) != 0) {
        SDK::LogError(m_logger, "VmEscape Module register the task(%s) failed.", taskName);
        return false;
    }
    SDK::LogInformation(m_logger, "VmEscape Module register the task(%s) success.", taskName);
    return true;
}

Framework::Task* VmEscapeDetectModule::GetDetectTask(const std::string& taskName) {
    if (taskName == kCmdTask) {
        return GetOrCreate(m_cmdDetectTask);
    }
    if (taskName == kFileTask) {
        return GetOrCreate(m_fileDetectTask);
    }
    if (taskName == kPortTask) {
        return GetOrCreate(m_portDetectTask);
    }
    return nullptr;
}

Framework::Policy* VmEscapeDetectModule::RefreshFeaturePolicy(const std::string& featureName,
                                                              const std::string& policyContent,
                                                              Framework::Policy*& currentPolicy) {
    Json::Value json;
    if (SDK::JsonUtils::ParseJsonStr(policyContent.c_str(), policyContent.length(), json) != 0) {
        return nullptr;
    }
    const std::string moduleName = SDK::JsonUtils::GetStringValue(json, "module_name", "");
    if (moduleName != kModuleName) {
        SDK::LogError(m_logger,
                      "The policy content(moduleName=%s) does not belong to VMEscapeDetectModule",
                      moduleName);
        return nullptr;
    }
    FeaturePolicyPtr policy;
    const auto feature = std::find_if(
        kFeatures.begin(), kFeatures.end(),
        [&featureName](const Feature& row) { return row.m_featureName == featureName; });
    if (feature != kFeatures.end()) {
        policy = feature->m_newPolicy(featureName);
        policy->m_featureName = featureName;
        policy->m_hash = SDK::JsonUtils::GetStringValue(json, "hash", "");
        policy->m_enabled = SDK::JsonUtils::GetBoolValue(json, "enabled", true);
        if (policy->Parse(policyContent)) {
            SDK::LogInformation(
                m_logger, "VmEscapeModule parse the feature policy(name=%s) success", featureName);
            SwitchTask(feature->m_taskName, policy->m_enabled);
        } else {
            policy.reset();
            SDK::LogError(m_logger, "VmEscapeModule parse the feature policy(name=%s) failed",
                          featureName);
        }
    }
    if (currentPolicy != nullptr) {
        currentPolicy->m_replaced = true;
    }
    return policy.release();
}

void VmEscapeDetectModule::SwitchTask(const std::string& taskName, bool enabled) {
    if (enabled) {
        RegisterDetectTask(taskName);
        SDK::LogInformation(m_logger, "VmEscapeModule register detect task(name=%s)", taskName);
    } else {
        UnRegisterTask(taskName);
        SDK::LogInformation(m_logger, "VmEscapeModule unregister detect task(name=%s)", taskName);
    }
}

}  // namespace Engine
