#pragma once

#include "ProcessCollector.h"
#include "SourceChoice.h"
#include "support/TemporaryFolder.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace ProcessCollectTest {

using Engine::ProcsMessage;
using ProcessCollect::ProcessCollector;

/// Whether this process may use the kernel's sources. Continuous integration must.
inline bool MayUseKernel() {
    const char* ci = std::getenv("CI");
    return ::geteuid() == 0 || (ci != nullptr && std::string(ci) == "true");
}

/// One event as a subscriber got it.
struct Seen {
    unsigned int m_flag = 0;
    int m_pid = 0;
    std::shared_ptr<ProcsMessage::procInfo> m_info;
};

/// A collector on a real source with one subscriber. The test's thread plays the task's.
class CollectorHarness {
public:
    explicit CollectorHarness(const std::string& source, std::size_t ringBytes = 4 << 20,
                              unsigned int inboxCapacity = 1 << 17)
        : m_inbox(std::make_shared<Framework::Inbox>("subscriber", inboxCapacity)) {
        auto started = ProcessCollect::StartSource(source, ringBytes);
        if (started != nullptr) {
            m_collector =
                std::make_unique<ProcessCollector>(std::move(started), ProcessCollector::Limits());
        }
    }

    /// Reads the process list and subscribes to everything.
    bool Start() {
        return m_collector != nullptr && m_collector->Start() &&
               m_collector->Subscribe(ProcsMessage::FORK, m_inbox) &&
               m_collector->Subscribe(ProcsMessage::EXEC, m_inbox) &&
               m_collector->Subscribe(ProcsMessage::EXIT, m_inbox);
    }

    ProcessCollector& Collector() { return *m_collector; }

    /// Takes in what has happened.
    void Pump() {
        m_collector->Pass();
        std::vector<std::shared_ptr<Framework::Message>> messages;
        m_inbox->Receive(messages, static_cast<int>(m_inbox->Capacity()));
        for (const auto& message : messages) {
            const auto& event = static_cast<const ProcsMessage&>(*message);
            Seen seen{event.GetProcFlag(), event.GetProcPid(), nullptr};
            event.GetProcInfo(seen.m_info);
            m_seen.push_back(std::move(seen));
        }
    }

    /// The events of one type about one process, so far.
    std::vector<Seen> Of(unsigned int flag, int pid) const {
        std::vector<Seen> found;
        std::copy_if(m_seen.begin(), m_seen.end(), std::back_inserter(found),
                     [=](const Seen& seen) { return seen.m_flag == flag && seen.m_pid == pid; });
        return found;
    }

    /// Waits for the end of a process. @return whether it was told
    bool WaitForExit(int pid) {
        return TestSupport::WaitUntil([this, pid] {
            Pump();
            return !Of(ProcsMessage::EXIT, pid).empty();
        });
    }

    /// Waits for an exec that leads to a command line of this beginning. @return it, or null
    std::shared_ptr<ProcsMessage::procInfo> WaitForExec(const std::string& cmdline) {
        std::shared_ptr<ProcsMessage::procInfo> found;
        TestSupport::WaitUntil([&] {
            Pump();
            for (const Seen& seen : m_seen) {
                if (seen.m_flag == ProcsMessage::EXEC &&
                    seen.m_info->m_cmdline.rfind(cmdline, 0) == 0) {
                    found = seen.m_info;
                }
            }
            return found != nullptr;
        });
        return found;
    }

    const std::vector<Seen>& All() const { return m_seen; }
    void Forget() { m_seen.clear(); }

private:
    std::shared_ptr<Framework::Inbox> m_inbox;
    std::unique_ptr<ProcessCollector> m_collector;
    std::vector<Seen> m_seen;
};

/// Waits for a child of this process. @return its wait status
inline int Reap(int pid) {
    int status = -1;
    ::waitpid(pid, &status, 0);
    return status;
}

/// Starts a program without a copy of this process's memory. @return its pid
int Spawn(const std::vector<std::string>& arguments);

/// A program of its own name in a folder of its own; removed with it.
class CopiedProgram {
public:
    /// @param name  the copy's file name; /bin/true is copied unless told otherwise
    explicit CopiedProgram(const std::string& name, const std::string& of = "/bin/true");

    std::string Path() const { return m_folder / m_name; }
    const std::string& Folder() const { return m_folder.Path(); }

private:
    const TestSupport::TemporaryFolder m_folder;
    const std::string m_name;
};

}  // namespace ProcessCollectTest
