#pragma once

#include "AlarmSink.h"

#include <Poco/Util/AbstractConfiguration.h>

#include <map>
#include <memory>
#include <string>

namespace Engine {

/// Makes outputs as the configuration describes them.
///
///   report.output  "stdout" (default), "file:PATH", "journald", "syslog" with or without a server,
///                  "webhook", "kafka", or several with commas between; each may name its own
///                  format before it: "text:stdout,json:file:PATH"
///   report.format  "text", "json", "ocsf", "ecs", or "auto" (default): text on a terminal and in
///                  the journal, JSON elsewhere
///   report.color   "always", "never", or "auto" (default): on a terminal
///   report.queue   documents that may wait for each output (default 8192)
///   report.file.megabytes  after which a file is rotated; 0 (default): never
///   report.file.keep       rotated files that are kept (default 8)
///   report.file.full       on a full file system "drop" (default), "rotate" or "wait"
///   report.webhook.*       see WebhookWriter
///   report.kafka.brokers, report.kafka.topic, report.kafka.properties_file   see KafkaSettings
///   report.spool.folder, report.spool.megabytes  where alarms wait for a server that is away
///
/// Threads: one at a time.
class OutputFactory {
public:
    using Settings = Poco::Util::AbstractConfiguration;

    /// @param settings  must outlive the factory
    explicit OutputFactory(const Settings& settings) : m_settings(settings) {}

    /// @param output  one output, with or without its format
    /// @return null when it cannot be had (logged)
    std::unique_ptr<AlarmSink> Make(std::string output);

    /// Once all outputs are made: names the alarms on disk that wait for one that is not among
    /// them.
    void WarnOfForgottenAlarms() const;

private:
    std::string TakeFormat(std::string& output) const;
    std::unique_ptr<AlarmWriter> MakeWriter(const std::string& output,
                                            const std::string& format) const;
    std::unique_ptr<AlarmWriter> MakeFile(const std::string& path) const;
    std::unique_ptr<AlarmWriter> MakeKafka() const;
    AlarmFormatter MakeFormatter(const std::string& format, const AlarmWriter& writer) const;
    std::string SpoolFolder() const;
    bool MakeSpool(const std::string& output, std::unique_ptr<AlarmSpool>& spool);

    const Settings& m_settings;
    std::map<std::string, int> m_spools;  // made so far, by output
};

}  // namespace Engine
