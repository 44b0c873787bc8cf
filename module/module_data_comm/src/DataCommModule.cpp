#include "DataCommModule.h"

#include "AlarmFormatter.h"
#include "AlarmSink.h"
#include "DataCommLog.h"
#include "KafkaWriter.h"
#include "LineWriter.h"
#include "ReportTask.h"
#include "SyslogWriter.h"
#include "sdk/StrUtils.h"

#include <Poco/Util/Application.h>

#include <unistd.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Engine {

namespace {

constexpr int kDefaultQueue = 8192;
constexpr const char* kDefaultTopic = "vmescape-alarms";
constexpr const char* kDefaultSpool = "/var/lib/vmescape/spool";
constexpr int kDefaultSpoolMegabytes = 64;
constexpr std::uint64_t kMegabyte = 1 << 20;
constexpr const char* kFilePrefix = "file:";
constexpr const char* kSyslog = "syslog";
constexpr const char* kSyslogPrefix = "syslog:";
constexpr const char* kKafka = "kafka";
constexpr const char* kFormats[] = {"text", "json", "ocsf", "ecs"};

using Settings = Poco::Util::AbstractConfiguration;

/// Kafka as it is configured, or null when it cannot be had (logged).
std::unique_ptr<AlarmWriter> OpenKafka(const Settings& settings) {
    KafkaSettings kafka{settings.getString("report.kafka.brokers", ""),
                        settings.getString("report.kafka.topic", kDefaultTopic),
                        {}};
    const std::string properties = settings.getString("report.kafka.properties_file", "");
    std::string why = kafka.m_brokers.empty() ? "report.kafka.brokers is not set" : "";
    std::unique_ptr<AlarmWriter> writer;
    if (why.empty() && (properties.empty() || kafka.ReadProperties(properties, why))) {
        writer = KafkaWriter::Open(kafka, why);
    }
    if (writer == nullptr) {
        SDK::LogError(GetDataCommLogger(), "Output(kafka) cannot be had: %s", why);
    }
    return writer;
}

/// The output that the configuration names, or null when it cannot be opened (logged).
std::unique_ptr<AlarmWriter> OpenOutput(const Settings& settings, const std::string& output) {
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
    if (output == kKafka) {
        return OpenKafka(settings);
    }
    if (output != "stdout") {
        SDK::LogError(GetDataCommLogger(),
                      "report.output(%s) is not understood, expected stdout, file:PATH, syslog, "
                      "syslog:local:PATH, syslog:unix:PATH, syslog:tcp:HOST:PORT or kafka",
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

AlarmFormatter::Style ToStyle(const std::string& format, bool terminal) {
    if (format == "ocsf") {
        return AlarmFormatter::Style::OCSF;
    }
    if (format == "ecs") {
        return AlarmFormatter::Style::ECS;
    }
    const bool text = format == "text" || (format == "auto" && terminal);
    return text ? AlarmFormatter::Style::TEXT : AlarmFormatter::Style::JSON;
}

AlarmFormatter MakeFormatter(const Settings& settings, const std::string& format, bool terminal) {
    const std::string color = settings.getString("report.color", "auto");
    const bool colored = color == "always" || (color == "auto" && terminal);
    return AlarmFormatter(ToStyle(format, terminal), colored, HostIdentity::Read());
}

/// Outputs to servers that may be away for long have a spool.
/// @return false when the one that it should have cannot be had (logged)
bool OpenSpool(const Settings& settings, const std::string& output,
               std::unique_ptr<AlarmSpool>& spool) {
    const std::string folder = settings.getString("report.spool.folder", kDefaultSpool);
    if (output != kKafka || folder.empty()) {
        return true;
    }
    const auto limit = static_cast<std::uint64_t>(
        settings.getInt("report.spool.megabytes", kDefaultSpoolMegabytes));
    std::string why;
    spool = AlarmSpool::Open(folder, output, limit * kMegabyte, why);
    if (spool == nullptr) {
        SDK::LogError(GetDataCommLogger(), "The spool of output(%s) cannot be had: %s", output,
                      why);
    }
    return spool != nullptr;
}

/// @return null when the output cannot be had (logged)
std::unique_ptr<AlarmSink> MakeSink(const Settings& settings, std::string output) {
    const std::string format = TakeFormat(output, settings.getString("report.format", "auto"));
    std::unique_ptr<AlarmWriter> writer = OpenOutput(settings, output);
    std::unique_ptr<AlarmSpool> spool;
    if (writer == nullptr || !OpenSpool(settings, output, spool)) {
        return nullptr;
    }
    const AlarmFormatter formatter = MakeFormatter(settings, format, writer->IsTerminal());
    return std::make_unique<AlarmSink>(
        std::move(writer), formatter,
        static_cast<std::size_t>(settings.getInt("report.queue", kDefaultQueue)), std::move(spool));
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
