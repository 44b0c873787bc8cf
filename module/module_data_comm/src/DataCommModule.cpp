#include "DataCommModule.h"

#include "AlarmFormatter.h"
#include "AlarmSink.h"
#include "DataCommLog.h"
#include "FileWriter.h"
#include "JournalWriter.h"
#include "LineWriter.h"
#include "ReportTask.h"
#include "SyslogWriter.h"
#include "sdk/StrUtils.h"

#include <Poco/Util/Application.h>

#include <unistd.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Engine {

namespace {

constexpr int kDefaultQueue = 8192;
constexpr const char* kFilePrefix = "file:";
constexpr const char* kJournald = "journald";
constexpr const char* kSyslog = "syslog";
constexpr const char* kSyslogPrefix = "syslog:";
constexpr const char* kFormats[] = {"text", "json"};

using Settings = Poco::Util::AbstractConfiguration;

FileWriter::Options FileOptions(const Settings& settings) {
    using WhenFull = FileWriter::WhenFull;
    const std::string full = settings.getString("report.file.full", "drop");
    FileWriter::Options options;
    options.m_limit = settings.getUInt64("report.file.megabytes", 0) << 20;
    options.m_keep = settings.getInt("report.file.keep", options.m_keep);
    options.m_whenFull = full == "rotate" ? WhenFull::ROTATE
                         : full == "wait" ? WhenFull::WAIT
                                          : WhenFull::DROP;
    return options;
}

/// The output that the configuration names, or null when it cannot be opened (logged).
std::unique_ptr<AlarmWriter> OpenOutput(const Settings& settings, const std::string& output) {
    const auto behind = [&output](const char* prefix) {
        return output.substr(std::char_traits<char>::length(prefix));
    };
    if (output.rfind(kFilePrefix, 0) == 0) {
        return FileWriter::Open(behind(kFilePrefix), FileOptions(settings));
    }
    if (output == kJournald) {
        return std::make_unique<JournalWriter>();
    }
    if (output == kSyslog) {
        return SyslogWriter::Open("");
    }
    if (output.rfind(kSyslogPrefix, 0) == 0) {
        return SyslogWriter::Open(behind(kSyslogPrefix));
    }
    if (output != "stdout") {
        SDK::LogError(GetDataCommLogger(),
                      "report.output(%s) is not understood, expected stdout, file:PATH, journald, "
                      "syslog, syslog:local:PATH, syslog:unix:PATH or syslog:tcp:HOST:PORT",
                      output);
        return nullptr;
    }
    return std::make_unique<LineWriter>(STDOUT_FILENO, "stdout");
}

/// Takes the format off the front of an output that names its own.
std::string TakeFormat(std::string& output, const std::string& otherwise) {
    for (const char* format : kFormats) {
        const std::string prefix = std::string(format) + ':';
        if (output.rfind(prefix, 0) == 0) {
            output.erase(0, prefix.length());
            return format;
        }
    }
    return otherwise;
}

AlarmFormatter MakeFormatter(const Settings& settings, const std::string& format,
                             const AlarmWriter& writer) {
    const std::string color = settings.getString("report.color", "auto");
    const bool text = format == "text" || (format == "auto" && writer.IsForPeople());
    const bool colored = color == "always" || (color == "auto" && writer.IsTerminal());
    return AlarmFormatter(text ? AlarmFormatter::Style::TEXT : AlarmFormatter::Style::JSON,
                          colored);
}

/// @return null when the output cannot be had (logged)
std::unique_ptr<AlarmSink> MakeSink(const Settings& settings, std::string output) {
    const std::string format = TakeFormat(output, settings.getString("report.format", "auto"));
    std::unique_ptr<AlarmWriter> writer = OpenOutput(settings, output);
    if (writer == nullptr) {
        return nullptr;
    }
    const AlarmFormatter formatter = MakeFormatter(settings, format, *writer);
    return std::make_unique<AlarmSink>(
        std::move(writer), formatter,
        static_cast<std::size_t>(settings.getInt("report.queue", kDefaultQueue)));
}

}  // namespace

DataCommModule::DataCommModule() : Framework::Module("data_comm_module") {}

DataCommModule::~DataCommModule() = default;

int DataCommModule::Init() {
    const Settings& settings = Poco::Util::Application::instance().config();
    std::vector<std::string> outputs;
    SDK::StrUtils::Split(settings.getString("report.output", "stdout"), ",", outputs);
    m_task = new ReportTask;
    for (const std::string& output : outputs) {
        std::unique_ptr<AlarmSink> sink = MakeSink(settings, output);
        if (sink == nullptr) {
            m_task = nullptr;
            return -1;
        }
        m_task->AddSink(std::move(sink));
    }
    return RegisterTask(m_task, false);
}

int DataCommModule::UnInit() {
    Framework::Module::UnInit();
    m_task = nullptr;
    return 0;
}

}  // namespace Engine
