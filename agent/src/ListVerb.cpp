#include "ListVerb.h"

#include "Inventory.h"
#include "StatusQuery.h"

#include <iostream>

namespace Agent {

int PrintList(const Options& options) {
    std::string path;
    if (const int code = FindStatusSocket(options, path); code != EXIT_GOOD) {
        return code;
    }
    std::string answer;
    Json::Value document;
    if (const std::string wrong = QueryAgent(path, LIST_REQUEST, answer, document);
        !wrong.empty()) {
        std::cerr << "vmescape-agent: " << wrong << '\n';
        return EXIT_FAILED;
    }
    std::cout << (options.m_json ? answer + '\n' : Inventory::ToText(document)) << std::flush;
    return EXIT_GOOD;
}

}  // namespace Agent
