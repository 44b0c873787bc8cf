#include "ReplayedFileTask.h"
#include "ReplayedFullTask.h"
#include "ReplayedNetTask.h"
#include "ReplayedRealTask.h"
#include "filenotify/FileNotifyMessage.h"
#include "filenotify/FileNotifyWatchMessage.h"
#include "framework/Engine.h"
#include "process_collect/ProcsRegistMessage.h"

#include <Poco/AutoPtr.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Engine::ProcsMessage;
using Strings = std::vector<std::string>;

/// Whoever subscribes.
class Asking : public Framework::Task {
public:
    Asking() : Framework::Task("asking", "", Framework::TaskCondition::RESIDENT_TASK, 64) {}
    ~Asking() override = default;

    /// What it was sent since the last call.
    Strings Told() {
        std::vector<std::shared_ptr<Framework::Message>> messages;
        BulkRecvMsg(messages, 64);
        Strings texts;
        for (const auto& message : messages) {
            if (const auto* process = dynamic_cast<const ProcsMessage*>(message.get())) {
                std::shared_ptr<ProcsMessage::procInfo> info;
                process->GetProcInfo(info);
                texts.push_back(std::to_string(process->GetProcFlag()) + ' ' +
                                std::to_string(process->GetProcPid()) + ' ' +
                                (info == nullptr ? "null" : info->m_name));
            } else if (const auto* file =
                           dynamic_cast<const Engine::FileNotifyMessage*>(message.get())) {
                texts.push_back(std::to_string(file->GetEventProcessId()) + ' ' +
                                std::to_string(file->GetEventMask()) + ' ' +
                                file->GetEventFilePath());
            }
        }
        return texts;
    }
};

class ReplayedTasks : public testing::Test {
protected:
    template <typename TaskT, typename MessageT, typename... Args>
    void Ask(TaskT& task, Args... args) {
        std::shared_ptr<Framework::Message> message = std::make_shared<MessageT>(args...);
        EXPECT_EQ(task.InterceptMsg(message), 1);
    }

    void Watch(Replay::ReplayedFileTask& task, const std::string& path, bool recursive = true,
               bool add = true) {
        _FileNotifyOpt options;
        options.m_recursive = recursive;
        (add ? options.m_add : options.m_remove) = true;
        Ask<Replay::ReplayedFileTask, Engine::FileNotifyWatchMessage>(
            task, m_asking.get(), path, std::vector<unsigned int>{1}, options);
    }

    const Poco::AutoPtr<Framework::Engine> m_engine{new Framework::Engine};
    Poco::AutoPtr<Asking> m_asking{new Asking};
};

using Regist = Engine::ProcsRegistMessage;
using UnRegist = Engine::ProcsUnRegistMessage;

TEST_F(ReplayedTasks, TellOfProcessesWhoAskedForWhatTheyAskedFor) {
    const Poco::AutoPtr<Replay::ReplayedRealTask> task(new Replay::ReplayedRealTask);
    auto& real = const_cast<Replay::ReplayedRealTask&>(*task);
    ProcsMessage::procInfo info;
    info.m_name = "sh";
    real.Tell(ProcsMessage::EXEC, 5, &info);
    EXPECT_EQ(m_asking->Told(), Strings());
    Ask<Replay::ReplayedRealTask, Regist>(real, 2U, m_asking.get());
    Ask<Replay::ReplayedRealTask, Regist>(real, 3U, m_asking.get());
    real.Tell(ProcsMessage::FORK, 5, &info);
    real.Tell(ProcsMessage::EXEC, 5, &info);
    real.Tell(ProcsMessage::EXIT, 5, nullptr);
    EXPECT_EQ(m_asking->Told(), (Strings{"2 5 sh", "3 5 null"}));
    Ask<Replay::ReplayedRealTask, UnRegist>(real, 2U, m_asking.get());
    real.Tell(ProcsMessage::EXEC, 5, &info);
    EXPECT_EQ(m_asking->Told(), Strings());
}

TEST_F(ReplayedTasks, GiveTheProcessesOfTheMoment) {
    Replay::RecordedProcesses processes;
    const Poco::AutoPtr<Replay::ReplayedFullTask> task(new Replay::ReplayedFullTask(processes));
    ProcsMessage::procInfo info;
    info.m_pid = 5;
    processes.Put(info);
    Replay::RecordedProcesses::Processes table;
    const_cast<Replay::ReplayedFullTask&>(*task).GetProcsMap(table);
    EXPECT_EQ(table.size(), 1U);
    EXPECT_EQ(table.count(5), 1U);
}

TEST_F(ReplayedTasks, GiveTheSocketsOfTheMomentAsCopies) {
    Poco::AutoPtr<Replay::ReplayedNetTask> task(new Replay::ReplayedNetTask);
    Agent::RecordedEvent change;
    change.m_opened[7] = std::make_shared<Engine::NetProcsMessage::netProcInfo>();
    change.m_opened[7]->m_port = 80;
    change.m_opened[7]->m_processes[5] = std::make_shared<ProcsMessage::procInfo>();
    task->Apply(change);
    Agent::SocketMap table;
    task->GetNetCacheMap(table);
    ASSERT_EQ(table.count(7), 1U);
    EXPECT_EQ(table[7]->m_port, 80);
    table[7]->m_processes[5]->m_name = "changed";
    Agent::SocketMap again;
    task->GetNetCacheMap(again);
    EXPECT_EQ(again[7]->m_processes[5]->m_name, "");
    task->Clear();
    again.clear();
    task->GetNetCacheMap(again);
    EXPECT_TRUE(again.empty());
}

TEST_F(ReplayedTasks, TellOfAccessesInTheDirectoriesThatWereAskedFor) {
    Replay::RecordedWatches watches;
    Poco::AutoPtr<Replay::ReplayedFileTask> task(new Replay::ReplayedFileTask(watches));
    Watch(*task, "/etc");
    Watch(*task, "/etc/ssl");
    Watch(*task, "/flat", false);
    for (const char* path :
         {"/etc/shadow", "/etc/ssl/key", "/etcetera", "/flat/a", "/flat/b/c", "/etc"}) {
        task->Tell(5, 32, path);
    }
    EXPECT_EQ(m_asking->Told(), (Strings{"5 32 /etc/shadow", "5 32 /etc/ssl/key", "5 32 /flat/a"}));
    Watch(*task, "/etc", true, false);
    task->Tell(5, 32, "/etc/shadow");
    task->Tell(5, 32, "/etc/ssl/key");
    EXPECT_EQ(m_asking->Told(), Strings{"5 32 /etc/ssl/key"});
}

TEST_F(ReplayedTasks, KnowADirectoryByWhereItLed) {
    Replay::RecordedWatches watches;
    watches.Add("/link", "/real");
    Poco::AutoPtr<Replay::ReplayedFileTask> task(new Replay::ReplayedFileTask(watches));
    Watch(*task, "/link");
    Watch(*task, "/");
    task->Tell(5, 32, "/real/a");
    EXPECT_EQ(m_asking->Told(), Strings{"5 32 /real/a"});
}

TEST_F(ReplayedTasks, KnowWhichDirectoriesWereNotRecorded) {
    Replay::RecordedWatches watches;
    watches.Add("/etc", "/etc");
    Poco::AutoPtr<Replay::ReplayedFileTask> task(new Replay::ReplayedFileTask(watches));
    Watch(*task, "/etc/ssl");
    Watch(*task, "/srv");
    EXPECT_EQ(task->NotRecorded(), Strings{"/srv"});
}

}  // namespace
