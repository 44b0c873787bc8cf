#include "outputs/SecretHeaders.h"

#include "outputs/GuardedFile.h"
#include "sdk/FileUtils.h"
#include "sdk/StrUtils.h"

#include <Poco/Error.h>
#include <Poco/Format.h>
#include <Poco/StringTokenizer.h>
#include <Poco/URI.h>

#include <strings.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>

namespace Engine {

namespace {

constexpr std::size_t kMaxBytes = 65536;
constexpr std::size_t kShortestSecret = 8;
constexpr const char* kHidden = "***";

// Those that the requests have anyway, and those that would change how a request is read.
constexpr std::array kReserved = {
    "Connection",      "Content-Length", "Content-Type",      "Expect",  "Host",
    "Idempotency-Key", "Trailer",        "Transfer-Encoding", "Upgrade", "User-Agent"};

/// A name as RFC 9110, 5.6.2 has it: a token.
bool IsToken(const std::string& name) {
    const auto allowed = [](char byte) {
        return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
               (byte >= '0' && byte <= '9') ||
               std::string("!#$%&'*+-.^_`|~").find(byte) != std::string::npos;
    };
    return !name.empty() && std::all_of(name.begin(), name.end(), allowed);
}

bool IsReserved(const std::string& name) {
    return std::any_of(kReserved.begin(), kReserved.end(), [&name](const char* reserved) {
        return ::strcasecmp(name.c_str(), reserved) == 0;
    });
}

bool IsPrintable(const std::string& value) {
    return std::all_of(value.begin(), value.end(),
                       [](char byte) { return (byte >= ' ' && byte <= '~') || byte == '\t'; });
}

/// @return what is wrong with a line, "" when nothing is
std::string TakeField(const std::string& line, SecretHeaders::Fields& fields) {
    const std::size_t colon = line.find(':');
    const std::string name = line.substr(0, colon);
    std::string value = colon == std::string::npos ? "" : line.substr(colon + 1);
    SDK::StrUtils::Trim(value);
    if (!IsToken(name) || value.empty() || !IsPrintable(value)) {
        return "expected \"Name: value\" in printable ASCII";
    }
    if (IsReserved(name)) {
        return name + " is the agent's to set";
    }
    fields.emplace_back(name, value);
    return "";
}

/// What an encoded text means.
/// @param form  whether + is a blank, as in what web forms send
/// @return the text itself when it is not encoded rightly
std::string Decode(const std::string& text, bool form) {
    try {
        std::string decoded;
        Poco::URI::decode('?' + text, decoded, form);  // only behind that + may be a blank
        return decoded.substr(1);
    } catch (const Poco::URISyntaxException&) {
        return text;
    }
}

}  // namespace

bool SecretHeaders::Read(const std::string& path, std::string& why) {
    std::string text;
    bool truncated = false;
    why = GuardedFile::WhyNot(path, GuardedFile::Others::MAY_NOT_READ);
    if (!why.empty()) {
        return false;
    }
    if (SDK::FileUtils::ReadFile(path, truncated, text, kMaxBytes) != 0) {
        why = Poco::format("%s cannot be read: %s", path, Poco::Error::getMessage(errno));
        return false;
    }
    if (truncated) {
        why = Poco::format("%s is longer than %z bytes", path, kMaxBytes);
        return false;
    }
    Fields fields;
    std::vector<std::string> lines;
    SDK::StrUtils::Split(text, "\n", lines);
    for (std::size_t i = 0; i < lines.size(); ++i) {
        SDK::StrUtils::Trim(lines[i]);
        const bool skipped = lines[i].empty() || lines[i].front() == '#';
        const std::string wrong = skipped ? "" : TakeField(lines[i], fields);
        if (!wrong.empty()) {
            why = Poco::format("%s, line %z: %s", path, i + 1, wrong);
            return false;
        }
    }
    m_fields = std::move(fields);
    for (const auto& [name, value] : m_fields) {
        AddSecret(value);
        // A server that complains about a token may repeat it without the "Bearer" before it.
        for (const std::string& word : Poco::StringTokenizer(value, " \t")) {
            AddSecret(word);
        }
    }
    return true;
}

void SecretHeaders::AddSecret(const std::string& text) {
    if (text.length() < kShortestSecret ||
        std::find(m_secrets.begin(), m_secrets.end(), text) != m_secrets.end()) {
        return;
    }
    const auto shorter =
        std::find_if(m_secrets.begin(), m_secrets.end(),
                     [&text](const std::string& other) { return other.length() < text.length(); });
    m_secrets.insert(shorter, text);
}

void SecretHeaders::AddTarget(const std::string& target) {
    AddPieces(target);
    AddPieces(Decode(target, false));
    AddPieces(Decode(target, true));
}

void SecretHeaders::AddPieces(const std::string& text) {
    AddSecret(text);
    const std::size_t query = text.find('?');
    AddSecret(text.substr(0, query));
    if (query != std::string::npos) {
        AddSecret(text.substr(query + 1));
    }
    for (const std::string& piece : Poco::StringTokenizer(text, "/?&=")) {
        AddSecret(piece);
        // Decoded alone, as well: a separator that was encoded is a part of it.
        AddSecret(Decode(piece, false));
        AddSecret(Decode(piece, true));
    }
}

std::string SecretHeaders::Hide(std::string text) const {
    for (const std::string& secret : m_secrets) {
        for (std::size_t at = text.find(secret); at != std::string::npos;
             at = text.find(secret, at)) {
            text.replace(at, secret.length(), kHidden);
        }
    }
    return text;
}

}  // namespace Engine
