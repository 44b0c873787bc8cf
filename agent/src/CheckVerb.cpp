#include "CheckVerb.h"

#include "PolicyChecker.h"
#include "sdk/JsonUtils.h"
#include "sdk/StrUtils.h"

#include <json/value.h>

#include <iostream>

namespace Agent {

namespace {

Json::Value ToJson(const std::string& file, const std::vector<Problem>& problems) {
    Json::Value entry;
    entry["file"] = file;
    entry["good"] = !HasErrors(problems);
    entry["problems"] = Json::arrayValue;
    for (const Problem& problem : problems) {
        Json::Value& shown = entry["problems"].append(Json::objectValue);
        shown["place"] = problem.m_place;
        shown["text"] = problem.m_text;
        shown["warning"] = problem.m_warning;
    }
    return entry;
}

void Print(const std::string& file, const std::vector<Problem>& problems) {
    for (const Problem& problem : problems) {
        std::cerr << ToText(problem) << '\n';
    }
    if (!HasErrors(problems)) {
        std::cout << SDK::StrUtils::EscapeForTerminal(file) << ": good\n";
    }
}

}  // namespace

int CheckFiles(const Options& options) {
    Json::Value document;
    bool good = true;
    for (const std::string& file : options.m_files) {
        const std::vector<Problem> problems = PolicyChecker::CheckFile(file);
        good = good && !HasErrors(problems);
        if (options.m_json) {
            document["files"].append(ToJson(file, problems));
        } else {
            Print(file, problems);
        }
    }
    if (options.m_json) {
        document["good"] = good;
        std::cout << SDK::JsonUtils::JsonToString(document) << '\n';
    }
    return good ? EXIT_GOOD : EXIT_BAD_INPUT;
}

}  // namespace Agent
