#include "VersionVerb.h"

#include "sdk/JsonUtils.h"

#include <iostream>

namespace Agent {

int PrintVersion(const Options& options) {
    constexpr const char* kProgram = "vmescape-agent";
    if (options.m_json) {
        Json::Value document;
        document["program"] = kProgram;
        document["version"] = VMESCAPE_VERSION;
        std::cout << document.toStyledString();
    } else {
        std::cout << kProgram << ' ' << VMESCAPE_VERSION << '\n';
    }
    return EXIT_GOOD;
}

}  // namespace Agent
