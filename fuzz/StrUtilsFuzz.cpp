// Pieces joined again are the text; trimmed text is trimmed; escaped text holds nothing that a
// terminal obeys. First line: the separator; the rest: the text.

#include "FuzzInput.h"
#include "sdk/StrUtils.h"

#include <algorithm>
#include <vector>

namespace {

void CheckSplit(const std::string& text, const std::string& separator) {
    std::vector<std::string> pieces;
    SDK::StrUtils::Split(text, separator, pieces);
    Require(!pieces.empty());
    std::string joined = pieces.front();
    for (std::size_t i = 1; i < pieces.size(); ++i) {
        joined += separator + pieces[i];
    }
    Require(joined == text);
}

void CheckTrim(const std::string& text) {
    std::string trimmed = text;
    SDK::StrUtils::Trim(trimmed);
    Require(text.find(trimmed) != std::string::npos);
    std::string again = trimmed;
    SDK::StrUtils::Trim(again);
    Require(again == trimmed);
}

void CheckEscape(const std::string& text) {
    const std::string shown = SDK::StrUtils::EscapeForTerminal(text);
    Require(std::none_of(shown.begin(), shown.end(),
                         [](char c) { return (c >= '\0' && c < ' ') || c == '\x7f'; }));
    Require(SDK::StrUtils::EscapeForTerminal(shown) == shown);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzInput input(data, size);
    const std::string separator = input.Line();
    const std::string text = input.Rest();
    CheckSplit(text, separator);
    CheckTrim(text);
    CheckEscape(text);
    return 0;
}
