#include "Recorder.h"

#include "AgentLog.h"
#include "RecordTask.h"
#include "Recording.h"
#include "RecordingFile.h"
#include "Settings.h"
#include "framework/Engine.h"
#include "sdk/JsonUtils.h"

#include <json/value.h>

#include <memory>
#include <set>
#include <utility>

namespace Agent {

namespace {

constexpr const char* kFileFeature = "qemu_file_detect_feature";
constexpr std::uint64_t kMegabyte = std::uint64_t{1} << 20;

/// The directories that a policy of the file detection has watched.
std::set<std::string> DirectoriesOf(const std::string& text) {
    Json::Value policy;
    Json::Value content;
    Json::Value list;
    std::set<std::string> directories;
    SDK::JsonUtils::ParseJsonStr(text.c_str(), text.length(), policy);
    if (!SDK::JsonUtils::GetBoolValue(policy, "enabled", true) ||
        !SDK::JsonUtils::GetSubobjectValue(policy, "content", content) ||
        !SDK::JsonUtils::GetArrayValue(content, "senstive_dirs", list)) {
        return directories;
    }
    for (const Json::Value& entry : list) {
        if (entry.isString()) {
            directories.insert(entry.asString());
        }
    }
    return directories;
}

}  // namespace

Recorder::Recorder() = default;

Recorder::~Recorder() { Stop(); }

std::string Recorder::Start(Framework::Engine& engine, const Settings& settings) {
    const std::string path = settings.Get("record.file");
    if (path.empty()) {
        return "";
    }
    m_engine = &engine;
    std::string wrong = TryToStart(path, settings.GetInt("record.megabytes"));
    if (!wrong.empty()) {
        m_trouble = std::make_unique<SDK::OpenLedger>([path, wrong] {
            SDK::Ledger books;
            books.m_name = "recording";
            books.m_by = path;
            books.m_trouble = "Nothing is recorded: " + wrong;
            return books;
        });
    }
    return wrong;
}

std::string Recorder::TryToStart(const std::string& path, int megabytes) {
    std::string wrong;
    std::unique_ptr<RecordingFile> file =
        RecordingFile::Open(path, static_cast<std::uint64_t>(megabytes) * kMegabyte, wrong);
    if (file == nullptr) {
        return wrong;
    }
    m_task = new RecordTask(std::make_unique<Recording>(std::move(file)));
    if (m_engine->RegisterTask(m_task.get(), false) != 0) {
        m_task = nullptr;
        return path + ": the task that records cannot be started";
    }
    LogNotice("What the detection is told is recorded in %s, %d megabytes at the most", path,
              megabytes);
    return "";
}

void Recorder::TakePolicy(const std::string& feature, const std::string& text) {
    if (!m_task.isNull() && feature == kFileFeature) {
        m_task->TakeDirectories(DirectoriesOf(text));
    }
}

void Recorder::Stop() {
    if (!m_task.isNull()) {
        m_engine->UnRegisterTask(RecordTask::NAME);
        m_task = nullptr;
    }
}

}  // namespace Agent
