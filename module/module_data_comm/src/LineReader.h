#pragma once

#include "sdk/UniqueDescriptor.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace Engine {

/// Reads a file line by line, and tells one that ends from one that cannot be read. What lies
/// behind the last line end is no line.
///
/// Threads: one at a time.
class LineReader {
public:
    /// @param offset  where the first line begins
    LineReader(const std::string& path, std::uint64_t offset);

    /// @param line  set to the next one, without its end
    /// @return false when there is none, or it cannot be read
    bool Next(std::string& line);

    /// Why the file cannot be opened or read, as in errno; 0 when it can.
    int Error() const { return m_error; }

    /// Where the line behind the last one begins.
    std::uint64_t Offset() const { return m_offset; }

    /// Bytes behind the last line end, once there is no next line.
    std::size_t Rest() const { return m_ahead.size() - m_begin; }

private:
    bool ReadAhead();

    SDK::UniqueDescriptor m_file;
    std::uint64_t m_offset;
    int m_error = 0;
    std::string m_ahead;      // what was read
    std::size_t m_begin = 0;  // in it: of the next line
};

}  // namespace Engine
