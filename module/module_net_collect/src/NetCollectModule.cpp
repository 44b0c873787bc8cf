#include "NetCollectModule.h"

#include "HolderChoice.h"
#include "NetCollectLog.h"
#include "NetFullTask.h"
#include "SocketTable.h"

#include <Poco/Util/AbstractConfiguration.h>
#include <Poco/Util/Application.h>

#include <cstdint>
#include <utility>

namespace NetCollect {

NetCollectModule::NetCollectModule() : Framework::Module("net_collect_module") {}

NetCollectModule::~NetCollectModule() = default;

int NetCollectModule::Init() {
    const std::string choice =
        Poco::Util::Application::instance().config().getString("net_collect.holders", "auto");
    std::unique_ptr<HolderSource> holders = StartHolderSource(choice);
    if (holders == nullptr) {
        return -1;
    }
    SDK::LogInformation(Logger(), "The holders of sockets come from source(%s).", holders->Name());
    m_sockets = std::make_shared<SocketTable>(std::move(holders));
    m_task = new NetFullTask(m_sockets);
    if (RegisterTask(m_task.get(), true) != 0) {
        UnInit();
        return -1;
    }
    m_books =
        std::make_unique<SDK::OpenLedger>([sockets = m_sockets] { return sockets->GetLedger(); });
    return 0;
}

int NetCollectModule::UnInit() {
    m_books.reset();
    const int result = Framework::Module::UnInit();
    if (m_sockets != nullptr) {
        LogBooks();
    }
    m_task = nullptr;
    m_sockets.reset();
    return result;
}

void NetCollectModule::LogBooks() const {
    const SocketTable::Counters counters = m_sockets->GetCounters();
    const auto number = [](std::uint64_t value) { return static_cast<unsigned long>(value); };
    SDK::LogInformation(Logger(),
                        "Socket tables: %lu whole, %lu not. Network namespaces: %lu not read, %lu "
                        "gone. %lu lists asked for again, %lu times the slower source of holders.",
                        number(counters.m_tables), number(counters.m_failedTables),
                        number(counters.m_failedNamespaces), number(counters.m_goneNamespaces),
                        number(counters.m_repeats), number(counters.m_fallbacks));
    SDK::LogInformation(Logger(), "Left out: %lu sockets that no process held, %lu holders gone.",
                        number(counters.m_heldByNobody), number(counters.m_goneHolders));
}

}  // namespace NetCollect
