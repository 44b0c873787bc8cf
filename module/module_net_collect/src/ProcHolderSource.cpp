#include "ProcHolderSource.h"

#include "NetCollectLog.h"
#include "ProcFolder.h"

#include <Poco/Error.h>

#include <cerrno>

namespace NetCollect {

bool ProcHolderSource::Read(const SocketSet& sockets, Holders& holders) {
    holders.clear();
    const std::vector<int> pids = ProcFolder::ListPids();
    if (pids.empty()) {
        SDK::LogError(Logger(), "The process list (/proc) cannot be read: %s",
                      Poco::Error::getMessage(errno));
        return false;
    }
    for (const int pid : pids) {
        const int error = ProcFolder::ForEachSocket(pid, [&](std::uint64_t inode) {
            if (sockets.count(inode) != 0) {
                holders[inode].push_back(pid);
            }
        });
        if (error != 0 && error != ENOENT && error != ESRCH) {
            NoteUnreadable(pid, error);
        }
    }
    SortHolders(holders);
    return true;
}

void ProcHolderSource::NoteUnreadable(int pid, int error) {
    if (m_unreadable++ == 0) {
        SDK::LogError(Logger(),
                      "The open files of process(%d) cannot be read: %s. Sockets that it holds are "
                      "not found; this is said once.",
                      pid, Poco::Error::getMessage(error));
    }
}

}  // namespace NetCollect
