#pragma once

#include "support/ChildProcess.h"
#include "support/TemporaryFolder.h"

#include <memory>
#include <string>
#include <vector>

namespace TestSupport {

/// A real QEMU without a guest: emulated, headless, and stopped before its first instruction. Its
/// monitor is the way out: what it makes QEMU do, a break-out could.
class QemuProcess {
public:
    /// Starts it and waits until its monitor answers. Fails the test when it does not.
    /// @param arguments  more arguments, the name of the virtual machine among them
    explicit QemuProcess(const std::vector<std::string>& arguments);

    /// Types one line into the monitor.
    /// @return what the monitor printed
    std::string Command(const std::string& text) const;

    /// Makes it run a shell command. A virtual machine does that once: afterwards it counts as
    /// migrated away.
    void RunShell(const std::string& command) const { Command("migrate \"exec:" + command + "\""); }

    int Pid() const { return m_child->Pid(); }

    /// Why tests with QEMU cannot run here; empty when they can.
    static std::string Missing();

private:
    int Connect() const;

    TemporaryFolder m_folder;
    std::unique_ptr<ChildProcess> m_child;
};

}  // namespace TestSupport
