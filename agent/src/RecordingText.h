#pragma once

#include "RecordedEvent.h"

#include <cstddef>
#include <string>

namespace Agent {

/// The lines of a recording: JSON documents, as docs/recording.md describes them.
///
/// Names, paths and command lines are bytes. Those that are no UTF-8 stand in Base64 under their
/// key with "_b64" behind it, so that nothing is lost.
/// Stateless.
class RecordingText {
public:
    /// Longer lines are neither written nor read: they bound the memory that reading takes.
    static constexpr std::size_t MAX_LINE_BYTES = std::size_t{16} << 20;

    /// What a kind of event is called.
    static std::string Name(RecordedEvent::Kind kind);

    /// As a line without its end.
    static std::string Write(const RecordingHeader& header);
    static std::string Write(const RecordedEvent& event);

    /// Reads a line. Keys that are not known are left alone.
    /// @return what is wrong with it: the place in it, what was expected and what was found; ""
    /// when
    ///         nothing is
    static std::string Read(const std::string& line, RecordingHeader& header);
    static std::string Read(const std::string& line, RecordedEvent& event);
};

}  // namespace Agent
