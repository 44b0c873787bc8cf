#include "StatusVerb.h"

#include "Status.h"
#include "StatusQuery.h"

#include <iostream>

namespace Agent {

int PrintStatus(const Options& options) {
    std::string path;
    if (const int code = FindStatusSocket(options, path); code != EXIT_GOOD) {
        return code;
    }
    std::string answer;
    Json::Value document;
    if (const std::string wrong = QueryStatus(path, answer, document); !wrong.empty()) {
        std::cerr << "vmescape-agent: " << wrong << '\n';
        return EXIT_FAILED;
    }
    std::cout << (options.m_json ? answer + '\n' : Status::ToText(document)) << std::flush;
    return document["state"] == "up" ? EXIT_GOOD : EXIT_FAILED;
}

}  // namespace Agent
