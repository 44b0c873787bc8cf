#pragma once

#include "ExitCode.h"

#include <algorithm>
#include <chrono>
#include <string>
#include <utility>
#include <vector>

namespace Agent {

/// What the command line asks for.
struct Options {
    enum class Verb {
        RUN,
        CHECK,
        STATUS,
        LIST,
        METRICS,
        SCHEMA,
        REPLAY,
        SELFTEST,
        SELFTEST_ACTOR,
        LEARN,
        VERSION
    };

    Verb m_verb = Verb::RUN;
    std::string m_config;  ///< empty: the default file, if there
    std::vector<std::pair<std::string, std::string>> m_settings;  ///< keys and texts, in order
    std::vector<std::string> m_files;                             ///< to check
    std::string m_socket;     ///< to ask for the status at; empty: the one of the configuration
    std::string m_listen;     ///< to serve metrics at; empty: they are printed
    std::string m_schema;     ///< to print the schema of; empty: their names
    std::string m_recording;  ///< to replay
    bool m_json = false;      ///< results as JSON
    std::chrono::seconds m_for{0};  ///< how long to learn
    std::string m_into;             ///< folder for what was learned

    /// Whether the command line sets a key of the configuration.
    bool Sets(const std::string& key) const {
        return std::any_of(m_settings.begin(), m_settings.end(),
                           [&key](const auto& setting) { return setting.first == key; });
    }
};

/// Reads the command line.
/// @return true to go on; false when the program is to end with exitCode: help or version was
/// shown,
///         or the command line is not understood (said on standard error)
bool ParseOptions(int argc, const char* const* argv, Options& options, int& exitCode);

}  // namespace Agent
