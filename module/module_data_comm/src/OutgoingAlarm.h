#pragma once

#include <string>

namespace Engine {

/// An alarm on its way to an output.
struct OutgoingAlarm {
    std::string m_document;  ///< as the detection made it
    std::string m_text;      ///< as the output shows it, without an end of line
};

}  // namespace Engine
