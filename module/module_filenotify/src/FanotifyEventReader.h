#pragma once

#include "FanotifyEvent.h"

#include <cstddef>
#include <functional>

namespace FileNotify {

/// Takes apart what read(2) gives from a fanotify descriptor (fanotify(7)).
class FanotifyEventReader {
public:
    using Sink = std::function<void(const FanotifyEvent&)>;

    /// Calls the sink for each event, in order. An event without a descriptor and without the name
    /// of a directory is passed on with both empty.
    /// @param data  aligned to 8 bytes
    /// @return false when the rest could not be understood
    static bool Read(const char* data, std::size_t size, const Sink& sink);
};

}  // namespace FileNotify
