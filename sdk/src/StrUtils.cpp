#include "sdk/StrUtils.h"

#include <Poco/Format.h>
#include <Poco/UTF8Encoding.h>
#include <Poco/Unicode.h>

namespace SDK {

namespace {

/// Writes one character that a terminal must not see.
std::string Escape(int character) {
    if (character == '\n') {
        return "\\n";
    }
    return character < 0x100 ? Poco::format("\\x%02x", static_cast<unsigned>(character))
                             : Poco::format("\\u%04x", static_cast<unsigned>(character));
}

bool IsShowable(int character) {
    // Control, format (bidirectional overrides), surrogate, private use, unassigned.
    Poco::Unicode::CharacterProperties properties{};
    Poco::Unicode::properties(character, properties);
    return properties.category != Poco::Unicode::UCP_OTHER;
}

}  // namespace

void StrUtils::Split(const std::string& text, const std::string& separator,
                     std::vector<std::string>& pieces) {
    pieces.clear();
    std::size_t start = 0;
    if (!separator.empty()) {
        for (std::size_t end = text.find(separator); end != std::string::npos;
             end = text.find(separator, start)) {
            pieces.push_back(text.substr(start, end - start));
            start = end + separator.length();
        }
    }
    pieces.push_back(text.substr(start));
}

void StrUtils::Trim(std::string& text) {
    constexpr const char* kWhiteSpace = " \t\r\n\v\f";
    const std::size_t last = text.find_last_not_of(kWhiteSpace);
    if (last == std::string::npos) {
        text.clear();
        return;
    }
    text.erase(last + 1);
    text.erase(0, text.find_first_not_of(kWhiteSpace));
}

std::string StrUtils::EscapeForTerminal(const std::string& text) {
    const Poco::UTF8Encoding utf8;
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    const int size = static_cast<int>(text.size());
    std::string shown;
    for (int i = 0; i < size;) {
        const int length = utf8.sequenceLength(bytes + i, 1);
        const bool legal =
            length > 0 && length <= size - i && Poco::UTF8Encoding::isLegal(bytes + i, length);
        const int character = legal ? utf8.queryConvert(bytes + i, length) : bytes[i];
        const int used = legal ? length : 1;
        if (legal && IsShowable(character)) {
            shown.append(text, static_cast<std::size_t>(i), static_cast<std::size_t>(used));
        } else {
            shown += Escape(character);
        }
        i += used;
    }
    return shown;
}

}  // namespace SDK
