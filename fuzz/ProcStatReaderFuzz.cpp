// A process chooses its name, blanks, parentheses and line ends included. It must not be able to
// pass for another process's child or for dead by it.

#include "FuzzInput.h"
#include "ProcStatReader.h"

namespace {

using ProcessCollect::ProcStat;
using ProcessCollect::ProcStatReader;

constexpr int kParent = 4711;
constexpr int kThreads = 3;

/// A line of /proc/<pid>/stat with this name.
std::string LineFor(const std::string& name) {
    std::string line = "42 (" + name + ") S " + std::to_string(kParent);
    for (int field = 5; field <= 52; ++field) {
        line += ' ' + std::to_string(field == 20 ? kThreads : field);
    }
    return line + '\n';
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = FuzzInput(data, size).Rest();
    ProcStat stat;
    if (!ProcStatReader::Parse(text, stat)) {
        Require(stat.m_state == '?' && stat.m_comm.empty());
    }

    ProcStat named;
    Require(ProcStatReader::Parse(LineFor(text), named));
    Require(named.m_comm == text && named.m_state == 'S' && named.m_parentPid == kParent);
    Require(named.m_threads == kThreads && named.Alive());
    return 0;
}
