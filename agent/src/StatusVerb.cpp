#include "StatusVerb.h"

#include "Settings.h"
#include "Status.h"
#include "StatusServer.h"
#include "sdk/JsonUtils.h"

#include <iostream>

namespace Agent {

int PrintStatus(const Options& options) {
    std::string path = options.m_socket;
    if (path.empty()) {
        Settings settings;
        const std::vector<Problem> problems = settings.LoadConfiguration(options.m_config);
        for (const Problem& problem : problems) {
            std::cerr << "vmescape-agent: " << ToText(problem) << '\n';
        }
        if (HasErrors(problems)) {
            return EXIT_BAD_INPUT;
        }
        path = settings.Get("status.socket");
    }
    if (path.empty()) {
        std::cerr << "vmescape-agent: status.socket is empty: the agent answers nowhere\n";
        return EXIT_FAILED;
    }
    std::string answer;
    const std::string wrong = StatusServer::Ask(path, answer);
    if (!wrong.empty()) {
        std::cerr << "vmescape-agent: no agent answers at " << path << ": " << wrong << '\n';
        return EXIT_FAILED;
    }
    Json::Value document;
    std::string error;
    if (SDK::JsonUtils::ParseJsonStr(answer.c_str(), answer.length(), document, error) != 0 ||
        !document.isObject()) {
        std::cerr << "vmescape-agent: what answers at " << path << " is no agent\n";
        return EXIT_FAILED;
    }
    std::cout << (options.m_json ? answer + '\n' : Status::ToText(document)) << std::flush;
    return document["state"] == "up" ? EXIT_GOOD : EXIT_FAILED;
}

}  // namespace Agent
