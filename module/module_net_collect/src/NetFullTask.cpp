#include "NetFullTask.h"

#include "SocketTable.h"

#include <utility>

namespace NetCollect {

namespace {

// Nobody sends it anything; an inbox must hold at least one message.
constexpr unsigned int kInboxCapacity = 1;

}  // namespace

NetFullTask::NetFullTask(std::shared_ptr<SocketTable> sockets)
    : Engine::NetProcsFullTask(NAME, "", Framework::TaskCondition::RESIDENT_TASK, kInboxCapacity),
      m_sockets(std::move(sockets)) {}

void NetFullTask::GetNetCacheMap(
    std::map<long, std::shared_ptr<Engine::NetProcsMessage::netProcInfo>>& table) {
    m_sockets->Read(table);
}

}  // namespace NetCollect
