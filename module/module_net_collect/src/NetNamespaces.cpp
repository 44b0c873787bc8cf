#include "NetNamespaces.h"

#include "ProcFolder.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>

namespace NetCollect {

namespace {

// Ways into a namespace that are remembered, in case that the first process ends meanwhile.
constexpr std::size_t kWaysIn = 4;

std::string LinkOf(const std::string& process) { return "/proc/" + process + "/ns/net"; }

/// The inode number of a namespace; 0 when it cannot be told (errno).
std::uint64_t NamespaceOf(const std::string& process) {
    struct stat status {};
    return ::stat(LinkOf(process).c_str(), &status) == 0 ? status.st_ino : 0;
}

/// Takes the calling thread into a namespace. @return 0, ENOENT when it is gone, or another error
int Enter(std::uint64_t inode, const std::vector<int>& pids) {
    for (const int pid : pids) {
        const SDK::UniqueDescriptor link(
            ::open(LinkOf(std::to_string(pid)).c_str(), O_RDONLY | O_CLOEXEC));
        struct stat status {};
        // The process may have ended, moved, or left its number to another one.
        if (link && ::fstat(link.Get(), &status) == 0 && status.st_ino == inode) {
            return ::setns(link.Get(), CLONE_NEWNET) == 0 ? 0 : errno;
        }
    }
    return ENOENT;
}

void Count(int error, NetNamespaces::Outcome& outcome) {
    if (error == 0) {
        ++outcome.m_read;
    } else if (error == ENOENT) {
        ++outcome.m_gone;
    } else {
        ++outcome.m_failed;
        outcome.m_error = error;
    }
}

}  // namespace

NetNamespaces::Namespaces NetNamespaces::List(Outcome& outcome) {
    Namespaces namespaces;
    for (const int pid : ProcFolder::ListPids()) {
        const std::uint64_t inode = NamespaceOf(std::to_string(pid));
        if (inode == 0 && errno != ENOENT && errno != ESRCH) {
            ++outcome.m_hidden;
            outcome.m_hiddenError = errno;
        }
        if (inode != 0 && namespaces[inode].size() < kWaysIn) {
            namespaces[inode].push_back(pid);
        }
    }
    return namespaces;
}

NetNamespaces::Outcome NetNamespaces::ReadSockets(std::vector<Socket>& sockets) {
    sockets.clear();
    Outcome outcome;
    Namespaces namespaces = List(outcome);
    namespaces.erase(NamespaceOf("thread-self"));
    const int error = m_reader.Read(sockets);
    // Its own namespace cannot be gone: whatever the error is, it is a failure.
    Count(error == ENOENT ? EIO : error, outcome);
    if (!namespaces.empty()) {
        // A thread of its own: one that cannot come back must not be anybody else's.
        std::thread([&] { ReadForeign(namespaces, sockets, outcome); }).join();
    }
    return outcome;
}

void NetNamespaces::ReadForeign(const Namespaces& namespaces, std::vector<Socket>& sockets,
                                Outcome& outcome) {
    for (const auto& [inode, pids] : namespaces) {
        int error = Enter(inode, pids);
        if (error == 0) {
            error = m_reader.Read(sockets);
        }
        Count(error, outcome);
    }
}

}  // namespace NetCollect
