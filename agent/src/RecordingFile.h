#pragma once

#include "sdk/UniqueDescriptor.h"

#include <cstdint>
#include <memory>
#include <string>

namespace Agent {

/// The file that a recording is written to: it never holds a torn line of ours, and never more than
/// its limit.
///
/// Threads: one at a time.
class RecordingFile {
public:
    /// Makes the file, which only its owner may read: command lines hold secrets. One that is there
    /// already is taken only when it is empty and our own.
    /// @param limit  bytes that it may hold
    /// @param wrong  set to what is wrong when the result is null
    static std::unique_ptr<RecordingFile> Open(const std::string& path, std::uint64_t limit,
                                               std::string& wrong);

    const std::string& Path() const { return m_path; }

    /// Whether that many bytes more may be written.
    bool HasRoom(std::uint64_t bytes) const { return bytes <= m_limit - m_size; }

    /// Writes whole lines; the caller has seen that there is room. What cannot be written whole is
    /// taken back.
    /// @return what is wrong, or ""
    std::string Write(const std::string& lines);

    /// Whether something could not be taken back: nothing is to be written behind it.
    bool IsTorn() const { return m_torn; }

private:
    RecordingFile(std::string path, SDK::UniqueDescriptor descriptor, std::uint64_t limit);

    const std::string m_path;
    const SDK::UniqueDescriptor m_descriptor;
    const std::uint64_t m_limit;
    std::uint64_t m_size = 0;
    bool m_torn = false;
};

}  // namespace Agent
