#pragma once

#include <string>
#include <vector>

namespace Agent {

/// Something that is wrong with a file, said so that its author finds and mends it.
struct Problem {
    std::string m_file;
    std::string m_place;     ///< a JSON pointer (RFC 6901); "" is the whole file
    std::string m_text;      ///< what was expected, and what was found
    bool m_warning = false;  ///< true when the file can be used all the same
};

/// One line: "FILE: PLACE: TEXT", and "warning: " before the text of a warning. Safe for a
/// terminal.
std::string ToText(const Problem& problem);

/// True when one of them is more than a warning.
bool HasErrors(const std::vector<Problem>& problems);

/// The first that is more than a warning, as one line; "" when there is none.
std::string FirstError(const std::vector<Problem>& problems);

/// Appends a key to a JSON pointer, escaped as RFC 6901 asks for.
std::string Pointer(const std::string& parent, const std::string& key);

}  // namespace Agent
