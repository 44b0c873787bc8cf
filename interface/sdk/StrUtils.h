#pragma once

#include <string>
#include <vector>

namespace SDK {

/// String helpers. Stateless: any thread may call any function at any time.
class StrUtils {
public:
    /// Cuts text at every occurrence of separator. Empty pieces are kept, the leading and the
    /// trailing one too: ":1" gives "" and "1". An empty text gives one empty piece; an empty
    /// separator gives the whole text.
    /// @param pieces  replaced by the pieces, in order
    static void Split(const std::string& text, const std::string& separator,
                      std::vector<std::string>& pieces);

    /// Removes blanks, tabs, CR, LF, VT and FF at both ends, in place.
    static void Trim(std::string& text);

    /// The text as it may be shown on a terminal: control and format characters and bytes that are
    /// not UTF-8 are written as escapes ("\n", "\x1b", "\u202e"), so that nothing a guest chose can
    /// move the cursor, change colours or fake a line.
    static std::string EscapeForTerminal(const std::string& text);
};

}  // namespace SDK
