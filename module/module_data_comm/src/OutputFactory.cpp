#include "OutputFactory.h"

#include "DataCommLog.h"
#include "outputs/FileWriter.h"
#include "outputs/JournalWriter.h"
#include "outputs/KafkaWriter.h"
#include "outputs/LineWriter.h"
#include "outputs/SyslogWriter.h"
#include "outputs/WebhookWriter.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <utility>

namespace Engine {

namespace {

constexpr int kDefaultQueue = 8192;
constexpr const char* kDefaultTopic = "vmescape-alarms";
constexpr const char* kDefaultSpool = "/var/lib/vmescape/spool";
constexpr int kDefaultSpoolMegabytes = 64;
constexpr std::uint64_t kMegabyte = 1 << 20;

constexpr const char* kKafka = "kafka";
constexpr const char* kWebhook = "webhook";

constexpr const char* kFormats[] = {"text", "json", "ocsf", "ecs"};

/// What stands behind a prefix; nothing when the text does not begin with it.
std::optional<std::string> Behind(const std::string& text, const std::string& prefix) {
    return text.starts_with(prefix) ? std::optional(text.substr(prefix.length())) : std::nullopt;
}

}  // namespace

std::unique_ptr<AlarmSink> OutputFactory::Make(std::string output) {
    const std::string format = TakeFormat(output);
    std::unique_ptr<AlarmWriter> writer = MakeWriter(output, format);
    std::unique_ptr<AlarmSpool> spool;
    if (writer == nullptr || !MakeSpool(output, spool)) {
        return nullptr;
    }
    const AlarmFormatter formatter = MakeFormatter(format, *writer);
    return std::make_unique<AlarmSink>(
        std::move(writer), formatter,
        static_cast<std::size_t>(m_settings.getInt("report.queue", kDefaultQueue)),
        std::move(spool));
}

/// Takes the format off the front of an output that names its own.
std::string OutputFactory::TakeFormat(std::string& output) const {
    for (const char* format : kFormats) {
        if (const auto rest = Behind(output, std::string(format) + ':')) {
            output = *rest;
            return format;
        }
    }
    return m_settings.getString("report.format", "auto");
}

std::unique_ptr<AlarmWriter> OutputFactory::MakeWriter(const std::string& output,
                                                       const std::string& format) const {
    if (output == "stdout") {
        return std::make_unique<LineWriter>(STDOUT_FILENO, "stdout");
    }
    if (const auto path = Behind(output, "file:")) {
        return MakeFile(*path);
    }
    if (output == "journald") {
        return std::make_unique<JournalWriter>();
    }
    if (output == "syslog") {
        return SyslogWriter::Open("");
    }
    if (const auto place = Behind(output, "syslog:")) {
        return SyslogWriter::Open(*place);
    }
    if (output == kWebhook) {
        return WebhookWriter::Open(m_settings, format != "text");
    }
    if (output == kKafka) {
        return MakeKafka();
    }
    SDK::LogError(GetDataCommLogger(),
                  "report.output(%s) is not understood, expected stdout, file:PATH, journald, "
                  "syslog, syslog:local:PATH, syslog:unix:PATH, syslog:tcp:HOST:PORT, webhook or "
                  "kafka",
                  output);
    return nullptr;
}

std::unique_ptr<AlarmWriter> OutputFactory::MakeFile(const std::string& path) const {
    using WhenFull = FileWriter::WhenFull;
    const std::string full = m_settings.getString("report.file.full", "drop");
    FileWriter::Options options;
    options.m_limit = m_settings.getUInt64("report.file.megabytes", 0) * kMegabyte;
    options.m_keep = m_settings.getInt("report.file.keep", options.m_keep);
    options.m_whenFull = full == "rotate" ? WhenFull::ROTATE
                         : full == "wait" ? WhenFull::WAIT
                                          : WhenFull::DROP;
    return FileWriter::Open(path, options);
}

std::unique_ptr<AlarmWriter> OutputFactory::MakeKafka() const {
    KafkaSettings kafka{m_settings.getString("report.kafka.brokers", ""),
                        m_settings.getString("report.kafka.topic", kDefaultTopic),
                        {}};
    const std::string properties = m_settings.getString("report.kafka.properties_file", "");
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

AlarmFormatter OutputFactory::MakeFormatter(const std::string& format,
                                            const AlarmWriter& writer) const {
    using Style = AlarmFormatter::Style;
    const std::string color = m_settings.getString("report.color", "auto");
    const bool colored = color == "always" || (color == "auto" && writer.IsTerminal());
    const bool text = format == "text" || (format == "auto" && writer.IsForPeople());
    const Style style = format == "ocsf"  ? Style::OCSF
                        : format == "ecs" ? Style::ECS
                        : text            ? Style::TEXT
                                          : Style::JSON;
    return AlarmFormatter(style, colored, HostIdentity::Read());
}

std::string OutputFactory::SpoolFolder() const {
    return m_settings.getString("report.spool.folder", kDefaultSpool);
}

/// Outputs to servers that may be away for long have a spool. A second output of a kind, as for
/// another format, has one of its own.
/// @return false when the one that it should have cannot be had (logged)
bool OutputFactory::MakeSpool(const std::string& output, std::unique_ptr<AlarmSpool>& spool) {
    const std::string folder = SpoolFolder();
    if ((output != kKafka && output != kWebhook) || folder.empty()) {
        return true;
    }
    const auto megabytes = static_cast<std::uint64_t>(
        m_settings.getInt("report.spool.megabytes", kDefaultSpoolMegabytes));
    const int number = ++m_spools[output];
    const std::string name = number == 1 ? output : output + '-' + std::to_string(number);
    std::string why;
    spool = AlarmSpool::Open(folder, name, megabytes * kMegabyte, why);
    if (spool == nullptr) {
        SDK::LogError(GetDataCommLogger(), "The spool of output(%s) cannot be had: %s", output,
                      why);
    }
    return spool != nullptr;
}

void OutputFactory::WarnOfForgottenAlarms() const {
    const std::string folder = SpoolFolder();
    if (folder.empty()) {
        return;
    }
    std::string why;
    for (const auto& [name, files] : AlarmSpool::FindForgotten(folder, why)) {
        SDK::LogWarning(GetDataCommLogger(),
                        "Spool file(%s), of %lu, holds alarms for output(%s), which is not "
                        "configured. They are sent when it is configured again; delete what is not "
                        "wanted any more.",
                        files.front(), static_cast<unsigned long>(files.size()), name);
    }
    if (!why.empty()) {
        SDK::LogWarning(GetDataCommLogger(),
                        "Whether alarms wait for outputs that are not configured is not known: %s",
                        why);
    }
}

}  // namespace Engine
