// Whatever parses is written as one line of ASCII that parses again, to the same line.

#include "FuzzInput.h"
#include "sdk/JsonUtils.h"

#include <algorithm>

namespace {

bool IsOneAsciiLine(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '\x7f'; });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = FuzzInput(data, size).Rest();
    Json::Value value;
    std::string error;
    if (SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), value, error) != 0) {
        Require(value.isNull() && !error.empty());
        return 0;
    }
    const std::string written = SDK::JsonUtils::JsonToString(value);
    Require(IsOneAsciiLine(written));
    Require(SDK::JsonUtils::ParseJsonStr(written.data(), written.size(), value, error) == 0);
    Require(SDK::JsonUtils::JsonToString(value) == written);
    return 0;
}
