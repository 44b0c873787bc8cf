#pragma once

#include <gtest/gtest.h>
#include <json/value.h>

#include <string>

/// Goes through a schema and expects each key that it names to have a description. @return how many
/// there are
inline int CountDescribedKeys(const Json::Value& schema) {
    int count = 0;
    if (schema.isArray()) {
        for (const Json::Value& part : schema) {
            count += CountDescribedKeys(part);
        }
    } else if (schema.isObject()) {
        for (const std::string& word : schema.getMemberNames()) {
            if (word == "if") {
                continue;
            }
            for (const std::string& key :
                 word == "properties" ? schema[word].getMemberNames() : Json::Value::Members()) {
                const std::string meaning = schema[word][key]["description"].asString();
                EXPECT_TRUE(!meaning.empty() && meaning.back() == '.') << key << ": " << meaning;
                count += 1 + CountDescribedKeys(schema[word][key]);
            }
            count += word == "properties" ? 0 : CountDescribedKeys(schema[word]);
        }
    }
    return count;
}
