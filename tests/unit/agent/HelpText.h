#pragma once

#include "Options.h"

#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>
#include <vector>

/// What the program prints for "--help"; behind a verb, when one is named.
inline std::string Help(const std::string& verb = "") {
    std::vector<const char*> arguments = {"vmescape-agent"};
    if (!verb.empty()) {
        arguments.push_back(verb.c_str());
    }
    arguments.push_back("--help");
    Agent::Options options;
    int exitCode = -1;
    testing::internal::CaptureStdout();
    Agent::ParseOptions(static_cast<int>(arguments.size()), arguments.data(), options, exitCode);
    return testing::internal::GetCapturedStdout();
}

/// The options that help lists, by their long names where they have one.
inline std::set<std::string> OptionsOf(const std::string& verb) {
    std::set<std::string> options;
    std::istringstream lines(Help(verb));
    for (std::string line; std::getline(lines, line);) {
        std::string word;
        std::istringstream(line) >> word;
        if (word.rfind('-', 0) == 0) {
            options.insert(word.substr(word.find(',') + 1));
        }
    }
    return options;
}

/// The verbs that help lists.
inline std::set<std::string> Verbs() {
    std::set<std::string> verbs;
    std::istringstream lines(Help());
    bool listed = false;
    for (std::string line; std::getline(lines, line);) {
        std::string word;
        std::istringstream(line) >> word;
        if (listed && line.rfind("  ", 0) == 0 && line.find_first_not_of(' ') == 2) {
            verbs.insert(word);
        }
        listed = listed || word == "Subcommands:";
    }
    return verbs;
}
