#include "LoadSettings.h"

#include <iostream>

namespace Agent {

int LoadSettings(const Options& options, Settings& settings) {
    const std::vector<Problem> problems = settings.LoadConfiguration(options.m_config);
    for (const Problem& problem : problems) {
        std::cerr << "vmescape-agent: " << ToText(problem) << '\n';
    }
    if (HasErrors(problems)) {
        return EXIT_BAD_INPUT;
    }
    for (const auto& [key, text] : options.m_settings) {
        const std::string wrong = settings.Set(key, text);
        if (!wrong.empty()) {
            std::cerr << "vmescape-agent: " << wrong << '\n';
            return EXIT_USAGE;
        }
    }
    return EXIT_GOOD;
}

}  // namespace Agent
