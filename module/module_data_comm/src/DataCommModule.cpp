#include "DataCommModule.h"

#include "AlarmFormatter.h"
#include "AlarmSink.h"
#include "DataCommLog.h"
#include "LineWriter.h"
#include "ReportTask.h"
#include "SyslogWriter.h"
#include "WebhookWriter.h"
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
constexpr const char* kSyslog = "syslog";
constexpr const char* kSyslogPrefix = "syslog:";
constexpr const char* kWebhook = "webhook";
constexpr const char* kFormats[] = {"text", "json"};

using Settings = Poco::Util::AbstractConfiguration;

/// The output that the configuration names, or null when it cannot be opened (logged).
/// @param json  whether it gets JSON when it is no terminal
std::unique_ptr<AlarmWriter> OpenOutput(const Settings& settings, const std::string& output,
                                        bool json) {
    const auto behind = [&output](const char* prefix) {
        return output.substr(std::char_traits<char>::length(prefix));
    };
    if (output.rfind(kFilePrefix, 0) == 0) {
        return LineWriter::OpenFile(behind(kFilePrefix));
    }
    if (output == kSyslog) {
        return SyslogWriter::Open("");
    }
    if (output.rfind(kSyslogPrefix, 0) == 0) {
        return SyslogWriter::Open(behind(kSyslogPrefix));
    }
    if (output == kWebhook) {
        return WebhookWriter::Open(settings, json);
    }
    if (output != "stdout") {
        SDK::LogError(GetDataCommLogger(),
                      "report.output(%s) is not understood, expected stdout, file:PATH, syslog, "
                      "syslog:local:PATH, syslog:unix:PATH, syslog:tcp:HOST:PORT or webhook",
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

AlarmFormatter MakeFormatter(const Settings& settings, const std::string& format, bool terminal) {
    const std::string color = settings.getString("report.color", "auto");
    const bool text = format == "text" || (format == "auto" && terminal);
    const bool colored = color == "always" || (color == "auto" && terminal);
    return AlarmFormatter(text ? AlarmFormatter::Style::TEXT : AlarmFormatter::Style::JSON,
                          colored);
}

/// @return null when the output cannot be had (logged)
std::unique_ptr<AlarmSink> MakeSink(const Settings& settings, std::string output) {
    const std::string format = TakeFormat(output, settings.getString("report.format", "auto"));
    std::unique_ptr<AlarmWriter> writer = OpenOutput(settings, output, format != "text");
    if (writer == nullptr) {
        return nullptr;
    }
    const AlarmFormatter formatter = MakeFormatter(settings, format, writer->IsTerminal());
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
