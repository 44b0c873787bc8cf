#pragma once

#include "Options.h"

#include <json/value.h>

#include <string>

namespace Agent {

/// What a check of the agent's health is answered.
struct Health {
    int m_status = 0;    ///< HTTP status: 200 up, 429 degraded, 503 down
    std::string m_text;  ///< a JSON document: the state, and the reasons when it is not up
};

/// @param status  the agent's; null when none answers
/// @param wrong   why none answers
Health JudgeHealth(const Json::Value& status, const std::string& wrong);

/// Prints the metrics of the running agent once, or serves them over HTTP on a loopback address or
/// a local socket, with /metrics and /health, until it is stopped. It is a program of its own on
/// purpose: the privileged agent listens to nobody on the network, and that it is gone can still be
/// told.
/// @return EXIT_GOOD; EXIT_FAILED when no agent answers (printing) or the address cannot be had
///         (serving); EXIT_USAGE for an address that is neither; EXIT_BAD_INPUT when the
///         configuration is wrong
int ExportMetrics(const Options& options);

}  // namespace Agent
