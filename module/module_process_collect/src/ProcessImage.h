#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace ProcessCollect {

/// Where a program's stack and arguments begin. An exec draws both anew, so they tell one run from
/// the next. A process may move one of them (prctl(2), PR_SET_MM), and in the middle of an exec the
/// first is not final, so one that matches is enough.
struct RunMarks {
    std::uint64_t m_stackStart = 0;     ///< 0: not known
    std::uint64_t m_argumentStart = 0;  ///< 0: not known

    bool Known() const { return m_stackStart != 0 && m_argumentStart != 0; }
    bool Matches(const RunMarks& other) const {
        return m_stackStart == other.m_stackStart || m_argumentStart == other.m_argumentStart;
    }
};

/// The program that a process runs, from one exec to the next. Forked children share their
/// parent's image, which keeps thousands of workers of one server cheap.
///
/// Threads: never changed once it is made.
struct ProcessImage {
    std::string m_name;     ///< the process name, complete as far as it can be known
    std::string m_exePath;  ///< absolute; empty for a kernel thread
    std::string m_cmdline;  ///< arguments joined by single blanks
    RunMarks m_marks;
};

using ProcessImagePtr = std::shared_ptr<const ProcessImage>;

/// Makes the image of a program at its exec.
/// @param comm       the name that the kernel gave the process at that exec
/// @param exePath    the executable's path, a trailing " (deleted)" is removed
/// @param arguments  as the kernel keeps them, each ended by a NUL
ProcessImagePtr MakeImageAtExec(std::string_view comm, std::string_view exePath,
                                std::string_view arguments, const RunMarks& marks);

/// Makes the image of a program that has run for an unknown time and may have renamed itself since
/// its exec. The kernel's name is believed when the executable or one of the first two arguments
/// explains it (a link or a script may lend its name); else the executable's name counts.
ProcessImagePtr MakeImageLater(std::string_view comm, std::string_view exePath,
                               std::string_view arguments, const RunMarks& marks);

/// Completes a name that the kernel cut at 15 bytes from the executable's or the first argument's
/// last path component that begins with it. Any other name is returned as it is.
std::string CompleteName(std::string_view comm, std::string_view exePath,
                         std::string_view firstArgument);

/// Joins NUL-ended arguments by single blanks: at most 4096 bytes, no trailing blank.
std::string JoinArguments(std::string_view arguments);

/// Removes the kernel's mark of a deleted file from a path.
std::string_view StripDeleted(std::string_view path);

}  // namespace ProcessCollect
