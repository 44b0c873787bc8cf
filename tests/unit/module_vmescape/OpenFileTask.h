#pragma once

#include "QemuFileDetectPolicy.h"
#include "QemuFileDetectTask.h"
#include "filenotify/FileNotifyWatchMessage.h"
#include "sdk/ProcessUtils.h"
#include "support/ScriptedTasks.h"

#include <Poco/AutoPtr.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

/// The file task with its insides open.
class OpenFileTask : public Engine::QemuFileDetectTask {
public:
    using QemuFileDetectTask::m_fileWarnInfo;
    using QemuFileDetectTask::m_monitorCmdlineMap;
    using QemuFileDetectTask::m_monitorPidMap;
    using QemuFileDetectTask::m_watchedDirs;

    OpenFileTask() = default;
    ~OpenFileTask() override = default;

    /// Works by a policy of this text from now on.
    void Use(const std::string& text) {
        auto policy = std::make_shared<Engine::QemuFileDetectPolicy>("qemu_file_detect_feature");
        policy->Parse(text);
        AttachFeaturePolicy(policy);
    }
};

using OpenFileTaskPtr = Poco::AutoPtr<OpenFileTask>;

/// Texts as a JSON list.
inline std::string JsonList(const std::vector<std::string>& texts) {
    std::string list;
    for (const std::string& text : texts) {
        list += (list.empty() ? "\"" : ",\"") + text + '"';
    }
    return '[' + list + ']';
}

/// A file policy text: an allow list, or with deny a deny list, of the files of "qemu-kvm".
inline std::string FilePolicy(const std::vector<std::string>& dirs,
                              const std::vector<std::string>& files = {}, bool deny = false) {
    return R"({"module_name":"vmescape_module","content":{"action":)" +
           std::string(deny ? "false" : "true") + R"(,"senstive_dirs":)" + JsonList(dirs) +
           R"(,"monitor_list":[{"virtmonitor":"qemu-kvm","filelist":)" + JsonList(files) + "}]}}";
}

/// Stands under "filenotify_task" and notes what it is asked for.
class ScriptedNotifier : public Framework::Task {
public:
    struct Request {
        std::string m_path;
        std::vector<unsigned int> m_masks;
        _FileNotifyOpt m_options;
        std::shared_ptr<Framework::Inbox> m_inbox;
    };

    ScriptedNotifier()
        : Framework::Task("filenotify_task", "", Framework::TaskCondition::RESIDENT_TASK, 64) {}
    ~ScriptedNotifier() override = default;

    int InterceptMsg(std::shared_ptr<Framework::Message>& message) override {
        const auto* request = dynamic_cast<const Engine::FileNotifyWatchMessage*>(message.get());
        if (request != nullptr) {
            const SDK::LockGuard lock(m_mutex);
            m_requests.push_back({request->GetPath(), request->GetMasks(), request->GetOptions(),
                                  request->GetInbox()});
        }
        return 1;
    }

    std::vector<Request> Requests() {
        const SDK::LockGuard lock(m_mutex);
        return m_requests;
    }

    /// The requests in short: "+/etc" and "-/etc". Then forgets them.
    std::vector<std::string> Take() {
        const SDK::LockGuard lock(m_mutex);
        std::vector<std::string> taken;
        for (const Request& request : m_requests) {
            taken.push_back((request.m_options.m_add ? "+" : "-") + request.m_path);
        }
        m_requests.clear();
        return taken;
    }

private:
    SDK::Mutex m_mutex;
    std::vector<Request> m_requests SDK_GUARDED_BY(m_mutex);
};

/// Answers the SDK's look-ups from what a test put in; nothing else is known.
class ScriptedProcesses {
public:
    ScriptedProcesses() {
        SDK::ProcessUtils::SetLookup([this](int pid, SDK::ProcessUtils::procRecord& record) {
            ++m_lookups;
            const auto found = m_records.find(pid);
            if (found != m_records.end()) {
                record = found->second;
            }
            return found != m_records.end();
        });
    }
    ~ScriptedProcesses() { SDK::ProcessUtils::SetLookup(nullptr); }
    ScriptedProcesses(const ScriptedProcesses&) = delete;
    ScriptedProcesses& operator=(const ScriptedProcesses&) = delete;

    void Add(int pid, const std::string& name, int ppid, const std::string& cmdline = "") {
        m_records[pid] = {{pid, ppid, name}, cmdline};
    }
    int Lookups() const { return m_lookups; }

private:
    std::map<int, SDK::ProcessUtils::procRecord> m_records;
    int m_lookups = 0;
};
