#pragma once

#include "AlarmWriter.h"

#include <string>

/// Writes one line. @return why it could not be written; empty when it could
inline std::string PutLine(Engine::AlarmWriter& writer, const std::string& line) {
    std::string why = "no reason";
    return writer.Write({{"", line}}, why) == 1 ? "" : why;
}
