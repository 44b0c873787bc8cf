#pragma once

#include "framework/Module.h"

#include <Poco/Logger.h>

#include <string>

namespace Engine {

class QemuCmdDetectTask;
class QemuFileDetectTask;
class QemuPortDetectTask;

/// Detects virtual machines that broke out: commands, files and ports of QEMU processes and of
/// everything they start. Each detection is a task that its feature policy switches on and off.
///
/// Threads: the framework calls Init, UnInit and the policy callback one at a time.
/// Ownership: the tasks are the module's. Each is made when it is first needed and kept for the
/// module's life; one extra reference keeps the framework from destroying it.
class VmEscapeDetectModule : public Framework::Module {
public:
    VmEscapeDetectModule();
    ~VmEscapeDetectModule() override;

    /// Registers for feature policies. Tasks come into being through policies only. @return 0
    int Init() override;

    /// Stops all detections. @return 0
    int UnInit() override;

    /// Starts a detection's task.
    /// @return true when it was newly registered; false when it runs already, is refused, or
    /// unknown
    bool RegisterDetectTask(const std::string& taskName);

    /// Handles a feature policy: builds the policy object and starts or stops the detection.
    /// @param currentPolicy  the policy in force or null; marked as replaced, never freed
    /// @return the new policy, owned by the caller; null when the text is refused
    Framework::Policy* RefreshFeaturePolicy(const std::string& featureName,
                                            const std::string& policyContent,
                                            Framework::Policy*& currentPolicy);

private:
    Framework::Task* GetDetectTask(const std::string& taskName);
    void UnRegisterDetectTask(const std::string& taskName);
    void SwitchTask(const std::string& taskName, bool enabled);

    Poco::Logger* m_logger;
    QemuCmdDetectTask* m_cmdDetectTask;
    QemuFileDetectTask* m_fileDetectTask;
    QemuPortDetectTask* m_portDetectTask;
};

}  // namespace Engine
