#pragma once

#include <string>
#include <vector>

namespace Agent {

/// What an allow list has to hold so that one command that was seen is allowed, and as little else
/// as is sensible.
///
/// An alarm tells a command's name and its whole command line, not the path of its executable.
/// The path is the better entry: it holds for whatever arguments (numbers of descriptors change
/// from start to start), and another program can pass for it only without arguments. So it is taken
/// from the first argument, where name and file system agree with that. A first argument that lied
/// leads to a path that does not match, never to an entry that allows more.
///
/// The whole command line is the entry where the path says too little: for interpreters, which do
/// whatever their arguments tell, and for programs that go by several names.
struct CommandEntry {
    std::string m_text;      ///< "" when there is none
    std::string m_why = {};  ///< why there is none

    /// @param name         of the process, as alarms tell it
    /// @param commandLine  arguments joined by single blanks
    /// @param folders      where programs are looked for that were called by name alone
    static CommandEntry Choose(const std::string& name, const std::string& commandLine,
                               const std::vector<std::string>& folders = StandardFolders());

    /// Where a shell looks when nobody told it where: /usr/local/sbin to /bin.
    static const std::vector<std::string>& StandardFolders();

    /// Whether a program of this name does what its arguments tell: shells, Perl, Python and the
    /// like. A version at its end does not matter.
    static bool IsInterpreter(const std::string& name);
};

}  // namespace Agent
