#pragma once

#include <string>
#include <utility>
#include <vector>

namespace Engine {

/// Headers that the operator's own file adds to requests, such as a token by which a server knows
/// this host. What is in them is told to that server and to nobody else.
///
/// Threads: one at a time.
class SecretHeaders {
public:
    using Fields = std::vector<std::pair<std::string, std::string>>;

    /// Reads the file: one "Name: value" a line; empty lines and those that begin with # are
    /// skipped. Nobody else may be able to read it.
    /// @param why  set when it cannot be used: with the number of the line, never with its text
    /// @return false when it cannot be used
    bool Read(const std::string& path, std::string& why);

    const Fields& GetFields() const { return m_fields; }

    /// Keeps a text that is no header from being told, too.
    void AddSecret(const std::string& text);

    /// The same for the path and query of an address: as a whole, and what is between its
    /// separators, which a server may repeat alone. As it is written and as it is meant.
    void AddTarget(const std::string& target);

    /// A text of others, such as a server's answer, without what it repeats of the secrets. What is
    /// shorter than eight characters is no secret.
    std::string Hide(std::string text) const;

private:
    void AddPieces(const std::string& text);

    Fields m_fields;
    std::vector<std::string> m_secrets;  // the longest first: one may be a part of another
};

}  // namespace Engine
