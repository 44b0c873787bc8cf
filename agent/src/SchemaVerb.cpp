#include "SchemaVerb.h"

#include "AlarmSchema.h"
#include "PolicySchema.h"
#include "Settings.h"
#include "sdk/JsonUtils.h"

#include <iostream>

namespace Agent {

namespace {

constexpr const char* kDraft = "https://json-schema.org/draft/2020-12/schema";
constexpr const char* kSettings = "agent";
constexpr const char* kAlarm = "alarm";

}  // namespace

std::vector<std::string> SchemaNames() {
    std::vector<std::string> names;
    for (const PolicyShape& shape : PolicyShape::All()) {
        names.emplace_back(shape.m_feature);
    }
    names.insert(names.end(), {kSettings, kAlarm});
    return names;
}

Json::Value SchemaOf(const std::string& name) {
    const PolicyShape* shape = PolicyShape::Find(name);
    Json::Value schema;
    if (shape != nullptr) {
        schema = PolicySchema::Of(*shape);
    } else {
        schema = name == kAlarm ? AlarmSchema::Of() : Settings::Schema();
    }
    schema["$schema"] = kDraft;
    // A name and no address: there is nothing to fetch.
    schema["$id"] = "urn:vmescape:schema:" + name;
    schema["title"] = name;
    return schema;
}

int PrintSchema(const Options& options) {
    if (!options.m_schema.empty()) {
        const Json::Value schema = SchemaOf(options.m_schema);
        std::cout << (options.m_json ? SDK::JsonUtils::JsonToString(schema) + '\n'
                                     : schema.toStyledString());
        return EXIT_GOOD;
    }
    Json::Value all;
    for (const std::string& name : SchemaNames()) {
        all[name] = SchemaOf(name);
        if (!options.m_json) {
            std::cout << name << '\n';
        }
    }
    if (options.m_json) {
        std::cout << SDK::JsonUtils::JsonToString(all) << '\n';
    }
    return EXIT_GOOD;
}

}  // namespace Agent
