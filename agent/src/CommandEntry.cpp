#include "CommandEntry.h"

#include "sdk/PathUtils.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <string_view>
#include <system_error>

namespace Agent {

namespace {

namespace fs = std::filesystem;

// Programs whose arguments are a program, or name one that they carry out themselves. What merely
// starts another program (env, nice, timeout) is none: what it starts is judged for itself.
constexpr std::array<std::string_view, 50> kInterpreters = {
    "ash",    "awk",    "bash",    "bpftrace", "bun",    "busybox", "csh",  "dash",  "deno",
    "ed",     "elvish", "emacs",   "erl",      "expect", "fish",    "gawk", "gdb",   "gjs",
    "guile",  "java",   "julia",   "ksh",      "lua",    "luajit",  "mawk", "mksh",  "mono",
    "nawk",   "node",   "nodejs",  "ocaml",    "octave", "perl",    "php",  "pwsh",  "pypy",
    "python", "rbash",  "Rscript", "ruby",     "sed",    "sh",      "stap", "tclsh", "tcsh",
    "toybox", "vi",     "vim",     "wish",     "zsh"};

// The dynamic loader runs any program that it is given.
constexpr std::string_view kLoader = "ld-";

constexpr std::string_view kReplaced = "\xef\xbf\xbd";  // U+FFFD

std::string FirstWord(const std::string& commandLine) {
    return commandLine.substr(0, commandLine.find(' '));
}

/// The program that a first argument names, all links followed; "" when there is none.
std::string FindProgram(const std::string& word, const std::vector<std::string>& folders) {
    std::vector<std::string> paths;
    if (word.rfind('/', 0) == 0) {
        paths.push_back(word);
    } else if (!word.empty() && word.find('/') == std::string::npos) {
        for (const std::string& folder : folders) {
            paths.push_back(folder);
            paths.back().append(1, '/').append(word);
        }
    }
    for (const std::string& path : paths) {
        std::error_code error;
        const fs::path program = fs::canonical(path, error);
        if (!error && fs::is_regular_file(program, error)) {
            return program.string();
        }
    }
    return "";
}

bool HoldsReplaced(const std::string& text) { return text.find(kReplaced) != std::string::npos; }

/// Why the whole command line is no entry; "" when it is one.
std::string WhyNotWhole(const std::string& name, const std::string& commandLine) {
    if (HoldsReplaced(commandLine)) {
        return "its command line holds bytes that are no text in UTF-8";
    }
    // One word is compared with the executable's path and name as well.
    const bool alone = commandLine.find(' ') == std::string::npos;
    if (alone && (CommandEntry::IsInterpreter(name) ||
                  CommandEntry::IsInterpreter(SDK::PathUtils::GetFileNameFromPath(commandLine)))) {
        return "an entry for an interpreter without arguments would allow whatever it is told";
    }
    if (alone && commandLine.find('/') == std::string::npos) {
        return "it was called by its name alone, and an entry for that would allow every program "
               "of that name";
    }
    return "";
}

}  // namespace

CommandEntry CommandEntry::Choose(const std::string& name, const std::string& commandLine,
                                  const std::vector<std::string>& folders) {
    const std::string path = FindProgram(FirstWord(commandLine), folders);
    if (!path.empty() && SDK::PathUtils::GetFileNameFromPath(path) == name &&
        !IsInterpreter(name) && !HoldsReplaced(path)) {
        return {path};
    }
    const std::string why = WhyNotWhole(name, commandLine);
    return why.empty() ? CommandEntry{commandLine} : CommandEntry{"", why};
}

const std::vector<std::string>& CommandEntry::StandardFolders() {
    static const std::vector<std::string> folders = {
        "/usr/local/sbin", "/usr/local/bin", "/usr/sbin", "/usr/bin", "/sbin", "/bin"};
    return folders;
}

bool CommandEntry::IsInterpreter(const std::string& name) {
    const std::size_t last = name.find_last_not_of("0123456789.-");
    const std::string base = name.substr(0, last + 1);
    return name.rfind(kLoader, 0) == 0 ||
           std::find(kInterpreters.begin(), kInterpreters.end(), base) != kInterpreters.end();
}

}  // namespace Agent
