#include "ReadSettings.h"

#include <iostream>

namespace Agent {

namespace {

void Complain(const std::string& text) { std::cerr << "vmescape-agent: " << text << '\n'; }

}  // namespace

int ReadSettings(const Options& options, Settings& settings) {
    const std::vector<Problem> problems = settings.LoadConfiguration(options.m_config);
    for (const Problem& problem : problems) {
        Complain(ToText(problem));
    }
    if (HasErrors(problems)) {
        return EXIT_BAD_INPUT;
    }
    for (const auto& [key, text] : options.m_settings) {
        const std::string wrong = settings.Set(key, text);
        if (!wrong.empty()) {
            Complain(wrong);
            return EXIT_USAGE;
        }
    }
    return EXIT_GOOD;
}

}  // namespace Agent
