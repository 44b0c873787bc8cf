// Whatever comes as a document is one line in every format. In OCSF and ECS it is a record with
// what every record has, and what is no document is in it as a text.

#include "FuzzInput.h"
#include "formats/AlarmFormatter.h"
#include "sdk/JsonUtils.h"

#include <algorithm>

namespace {

using Engine::AlarmFormatter;

const Engine::HostIdentity kHost = {"host-01", "8f4b1c1e-3a0c-4f0e-9c0b-0d5f6f0f2a11", "0.1.0"};

// The mapping puts the document this much deeper than it was. A document near the reader's own
// limit cannot be read back.
constexpr std::size_t kDeepest = 900;

std::string Format(AlarmFormatter::Style style, const std::string& document) {
    const std::string line = AlarmFormatter(style, true, kHost).Format(document);
    Require(std::none_of(line.begin(), line.end(), [style](char c) {
        const bool isColour = c == '\x1b' && style == AlarmFormatter::Style::TEXT;
        return c >= '\0' && c < ' ' && !isColour;
    }));
    return line;
}

Json::Value Read(const std::string& line) {
    Json::Value record;
    Require(SDK::JsonUtils::ParseJsonStr(line.data(), line.size(), record) == 0);
    Require(record.isObject());
    return record;
}

void CheckOcsf(const std::string& line, bool isDocument) {
    const Json::Value finding = Read(line);
    Require(finding["class_uid"] == 2004 && finding["type_uid"] == 200401);
    Require(finding["time"].isInt64() && finding["severity_id"].isInt());
    Require(!finding["finding_info"]["uid"].asString().empty());
    Require(finding["metadata"]["product"]["name"].isString());
    Require(finding.isMember("raw_data") != isDocument);
}

void CheckEcs(const std::string& line, bool isDocument) {
    const Json::Value record = Read(line);
    Require(record["@timestamp"].asString().size() == 20);
    Require(record["event"]["kind"] == "alert" && record["ecs"]["version"].isString());
    Require(!record["event"]["id"].asString().empty());
    Require(record["event"].isMember("original") != isDocument);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string document = FuzzInput(data, size).Rest();
    Json::Value parsed;
    const bool isDocument =
        SDK::JsonUtils::ParseJsonStr(document.data(), document.size(), parsed) == 0 &&
        parsed.isObject();
    Format(AlarmFormatter::Style::TEXT, document);
    Format(AlarmFormatter::Style::JSON, document);
    const std::string finding = Format(AlarmFormatter::Style::OCSF, document);
    const std::string record = Format(AlarmFormatter::Style::ECS, document);
    const auto opened = std::count(document.begin(), document.end(), '[') +
                        std::count(document.begin(), document.end(), '{');
    if (static_cast<std::size_t>(opened) < kDeepest) {
        CheckOcsf(finding, isDocument);
        CheckEcs(record, isDocument);
    }
    return 0;
}
