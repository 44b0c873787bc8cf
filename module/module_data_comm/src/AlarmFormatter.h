#pragma once

#include <json/value.h>

#include <string>

namespace Engine {

/// How an alarm document looks in an output. Stateless: any thread may use it.
class AlarmFormatter {
public:
    enum class Style {
        JSON,  ///< the document itself
        TEXT,  ///< one line for people: time, VM, what, process, parent
    };

    /// @param colored  whether text carries terminal colours
    AlarmFormatter(Style style, bool colored) : m_style(style), m_colored(colored) {}

    /// One line without its end. A document that is not JSON is shown as it is, escaped.
    std::string Format(const std::string& document) const;

private:
    std::string FormatText(const Json::Value& alarm) const;
    std::string Paint(const char* color, const std::string& text) const;

    Style m_style;
    bool m_colored;
};

}  // namespace Engine
