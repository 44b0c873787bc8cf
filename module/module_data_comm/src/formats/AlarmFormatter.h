#pragma once

#include "formats/HostIdentity.h"

#include <json/value.h>

#include <string>
#include <utility>

namespace Engine {

/// How an alarm document looks in an output. Stateless: any thread may use it.
class AlarmFormatter {
public:
    enum class Style {
        JSON,  ///< the document itself
        TEXT,  ///< one line for people: time, VM, what, process, parent
        OCSF,  ///< a finding of the Open Cybersecurity Schema Framework
        ECS,   ///< an event of the Elastic Common Schema
    };

    /// @param colored  whether text carries terminal colours
    /// @param host     where alarms are from, which OCSF and ECS tell
    AlarmFormatter(Style style, bool colored, HostIdentity host = {})
        : m_style(style), m_colored(colored), m_host(std::move(host)) {}

    /// One line without its end. A document that is not a JSON object is shown as it is: as text
    /// escaped, in OCSF and ECS within a record of the format.
    std::string Format(const std::string& document) const;

private:
    std::string FormatText(const Json::Value& alarm) const;
    std::string Paint(const char* color, const std::string& text) const;

    Style m_style;
    bool m_colored;
    HostIdentity m_host;
};

}  // namespace Engine
