#include "Subscriber.h"

#include <algorithm>
#include <utility>

namespace ProcessCollect {

Subscriber::Subscriber(std::shared_ptr<Framework::Inbox> inbox, std::size_t backlog)
    : Framework::Outbox(std::move(inbox), backlog, "process events") {}

bool Subscriber::WantsAny() const {
    return std::find(m_types.begin(), m_types.end(), true) != m_types.end();
}

void Subscriber::SetWanted(unsigned int type, bool wanted) {
    if (type < m_types.size()) {
        m_types[type] = wanted;
    }
}

}  // namespace ProcessCollect
