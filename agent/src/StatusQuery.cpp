#include "StatusQuery.h"

#include "Settings.h"
#include "StatusServer.h"
#include "sdk/JsonUtils.h"
#include "sdk/StrUtils.h"

#include <iostream>

namespace Agent {

int FindStatusSocket(const Options& options, std::string& path) {
    path = options.m_socket;
    if (!path.empty()) {
        return EXIT_GOOD;
    }
    Settings settings;
    const std::vector<Problem> problems = settings.LoadConfiguration(options.m_config);
    for (const Problem& problem : problems) {
        std::cerr << "vmescape-agent: " << ToText(problem) << '\n';
    }
    if (HasErrors(problems)) {
        return EXIT_BAD_INPUT;
    }
    path = settings.Get("status.socket");
    if (path.empty()) {
        std::cerr << "vmescape-agent: status.socket is empty: the agent answers nowhere\n";
        return EXIT_FAILED;
    }
    return EXIT_GOOD;
}

std::string QueryAgent(const std::string& path, const std::string& request, std::string& answer,
                       Json::Value& document) {
    const std::string wrong = StatusServer::Ask(path, request, answer);
    // Every answer is an object; of one that is no whole one, the agent has ended meanwhile.
    const std::string cut =
        answer.starts_with('{') ? "the answer of the agent at " + path + " is cut" : "";
    if (!wrong.empty()) {
        return (cut.empty() ? "no agent answers at " + path : cut) + ": " + wrong;
    }
    std::string error;
    if (SDK::JsonUtils::ParseJsonStr(answer.c_str(), answer.length(), document, error) != 0 ||
        !document.isObject()) {
        return cut.empty() ? "what answers at " + path + " is no agent" : cut;
    }
    if (document.isMember("error")) {
        return SDK::StrUtils::EscapeForTerminal(
            "the agent at " + path +
            " says: " + SDK::JsonUtils::GetStringValue(document, "error", "something is wrong"));
    }
    return "";
}

std::string QueryStatus(const std::string& path, std::string& answer, Json::Value& document) {
    return QueryAgent(path, STATUS_REQUEST, answer, document);
}

}  // namespace Agent
