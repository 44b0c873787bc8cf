#pragma once

#include "FileNotifier.h"
#include "filenotify/FileNotifyMessage.h"
#include "sdk/UniqueDescriptor.h"
#include "support/TemporaryFolder.h"
#include "support/WaitUntil.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace FileNotifyTest {

using Engine::FileNotifyMessage;
using Strings = std::vector<std::string>;

/// Runs something in a process of its own, which does not count as the notifier's.
/// @return its pid, once it has ended
inline int InChild(const std::function<void()>& act) {
    const pid_t child = ::fork();
    if (child == 0) {
        act();
        ::_exit(0);
    }
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    return child;
}

/// An open directory.
inline SDK::UniqueDescriptor Open(const std::string& path) {
    return SDK::UniqueDescriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

/// Opens, reads and closes a file.
inline void ReadFile(const std::string& path) {
    char byte = 0;
    const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0 || ::read(file, &byte, 1) < 0) {
        ::_exit(1);
    }
    ::close(file);
}

/// Opens, writes and closes a file.
inline void WriteFile(const std::string& path) {
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (file < 0 || ::write(file, "x", 1) != 1) {
        ::_exit(1);
    }
    ::close(file);
}

/// How many descriptors this process has open.
inline int OpenDescriptors() {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        count += entry.path().empty() ? 0 : 1;
    }
    return count;
}

/// A notifier on the real kernel, a folder to be watched, and one subscriber. The test's thread
/// plays the task's.
class NotifierTest : public testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0) {
            ASSERT_EQ(std::getenv("CI"), nullptr) << "fanotify needs root";
            GTEST_SKIP() << "fanotify needs root";
        }
        ASSERT_TRUE(m_notifier.Start());
    }

    std::string Make(const std::string& directory) const {
        std::filesystem::create_directories(m_folder / directory);
        return m_folder / directory;
    }
    std::string File(const std::string& name) const { return m_folder.Write(name, "secret"); }

    void Watch(const std::string& path, bool recursive = true) {
        m_notifier.Watch(path, recursive, m_inbox);
        Settle();
    }
    void Unwatch(const std::string& path) { m_notifier.Unwatch(path, m_inbox); }

    /// Takes in all that has happened until nothing is left to be marked.
    void Settle() {
        while (m_notifier.Pass() == 0) {
        }
        Receive(m_inbox, m_events);
    }

    /// What a file was touched for, by whomever, so far.
    std::vector<int> MasksOf(const std::string& path) {
        Settle();
        std::vector<int> masks;
        for (const auto& event : m_events) {
            if (event->GetEventFilePath() == path) {
                masks.push_back(event->GetEventMask());
            }
        }
        return masks;
    }

    /// Whether a reading of this file is told.
    bool Sees(const std::string& path) {
        m_events.clear();
        InChild([&] { ReadFile(path); });
        return !MasksOf(path).empty();
    }

    static void Receive(const std::shared_ptr<Framework::Inbox>& inbox,
                        std::vector<std::shared_ptr<FileNotifyMessage>>& events) {
        std::vector<std::shared_ptr<Framework::Message>> messages;
        inbox->Receive(messages, static_cast<int>(inbox->Capacity()));
        for (const auto& message : messages) {
            events.push_back(std::dynamic_pointer_cast<FileNotifyMessage>(message));
        }
    }

    std::size_t Marked() const { return m_notifier.Tree().MarkedCount(); }

    TestSupport::TemporaryFolder m_folder;
    std::shared_ptr<Framework::Inbox> m_inbox =
        std::make_shared<Framework::Inbox>("subscriber", 1 << 16);
    FileNotify::FileNotifier m_notifier{1 << 16};
    std::vector<std::shared_ptr<FileNotifyMessage>> m_events;
};

}  // namespace FileNotifyTest
