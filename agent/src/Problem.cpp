#include "Problem.h"

#include "sdk/StrUtils.h"

#include <Poco/String.h>

#include <algorithm>

namespace Agent {

std::string ToText(const Problem& problem) {
    std::string text = problem.m_file + ": ";
    if (!problem.m_place.empty()) {
        text += problem.m_place + ": ";
    }
    return SDK::StrUtils::EscapeForTerminal(text + (problem.m_warning ? "warning: " : "") +
                                            problem.m_text);
}

bool HasErrors(const std::vector<Problem>& problems) {
    return std::any_of(problems.begin(), problems.end(),
                       [](const Problem& problem) { return !problem.m_warning; });
}

std::string FirstError(const std::vector<Problem>& problems) {
    const auto found = std::find_if(problems.begin(), problems.end(),
                                    [](const Problem& problem) { return !problem.m_warning; });
    return found == problems.end() ? "" : ToText(*found);
}

std::string Pointer(const std::string& parent, const std::string& key) {
    return parent + '/' + Poco::replace(Poco::replace(key, "~", "~0"), "/", "~1");
}

}  // namespace Agent
