#pragma once

#include <string>
#include <utility>
#include <vector>

namespace Engine {

/// Where alarms go in Kafka, and how.
struct KafkaSettings {
    std::string m_brokers;  ///< HOST:PORT, several with commas
    std::string m_topic;
    /// What else the client is told, in order: names of librdkafka's CONFIGURATION.md and values.
    std::vector<std::pair<std::string, std::string>> m_properties;

    /// Reads properties, one NAME=VALUE a line; empty lines and those that begin with # are left
    /// out. Such a file may hold passwords: nobody else may be able to read it, and what stands in
    /// it never gets into a message of this function.
    /// @param wrong  set to file, line and what was expected
    /// @return false when the file cannot be read, or a line is not understood
    bool ReadProperties(const std::string& path, std::string& wrong);
};

}  // namespace Engine
