#pragma once

#include "ProcessEvent.h"

#include <cstddef>

namespace ProcessCollect {

/// Reads the records that the BPF programs write. The only user-space code that knows their layout.
/// Stateless: any thread at any time.
class ProcessRecordReader {
public:
    /// @param data   one record as it lies in the ring buffer
    /// @param event  filled; its texts point into data
    /// @return false, and event is unchanged, when the record is malformed or of another version
    static bool Read(const void* data, std::size_t size, ProcessEvent& event);
};

}  // namespace ProcessCollect
