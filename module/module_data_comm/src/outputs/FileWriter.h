#pragma once

#include "outputs/FileRotation.h"
#include "outputs/LineWriter.h"
#include "sdk/UniqueDescriptor.h"

#include <cstdint>
#include <memory>
#include <string>

namespace Engine {

/// Appends whole lines to the file at a path. A line that cannot be written whole is taken back, so
/// that the file holds no torn one; a torn one that a crash left, or that may not be taken back,
/// gets its end before the next. A file that was renamed or removed, as log rotation does, is made
/// anew. A file may be rotated by its size.
///
/// A symbolic link is followed when it stood at the path from the beginning. Where one takes the
/// place of a file, alarms wait until it has gone.
///
/// What stands at the path may also be a named pipe with a reader, or a device: then lines are
/// written to it, and nothing more.
class FileWriter : public LineWriter {
public:
    /// What is done when the file system or the quota is full.
    enum class WhenFull {
        DROP,    ///< the line is lost
        ROTATE,  ///< the oldest rotated files are removed; without them as DROP
        WAIT,    ///< the line is tried again until there is room
    };

    struct Options {
        std::uint64_t m_limit = 0;  ///< bytes after which it is rotated; 0: never
        int m_keep = 8;             ///< rotated files, 1 to FileRotation::MOST
        WhenFull m_whenFull = WhenFull::DROP;
    };

    /// Opens a file to append to; a new one may be read by its owner and group. A named pipe must
    /// have a reader.
    /// @return null when it cannot be opened (logged)
    static std::unique_ptr<FileWriter> Open(const std::string& path, const Options& options);

    /// Lets go of a file that was moved away. Where no new one can be made, the old one still takes
    /// lines (logged). @return false when a symbolic link has taken its place
    bool Prepare(std::string& why) override;

    /// When there was no room, and it is to be waited for; while a symbolic link is in the way; and
    /// while nobody reads a named pipe.
    bool ShouldRetry() const override { return m_retry || LineWriter::ShouldRetry(); }

protected:
    bool WriteLine(const std::string& line, std::string& why) override;

private:
    FileWriter(const std::string& path, const Options& options, bool link);

    bool FollowRename(std::string& why);
    void Take(SDK::UniqueDescriptor file);
    int Append(const std::string& line);
    bool EndTornLine();
    void RotateFor(std::size_t more);
    int WriteWhole(const std::string& text);

    const WhenFull m_whenFull;
    const bool m_link;  // the path was a symbolic link at the beginning
    const FileRotation m_rotation;
    SDK::UniqueDescriptor m_file;
    bool m_isRegular = false;
    bool m_torn = false;  // its last line has no end
    bool m_retry = false;
    bool m_renewalFails = false;
    bool m_rotationFails = false;
};

}  // namespace Engine
