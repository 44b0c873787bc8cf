#pragma once

#include "RecordedEvent.h"

#include <vector>

namespace Agent {

/// How one table of sockets differs from another. Stateless.
class SocketChanges {
public:
    /// The differences, in as many events as it takes for each to be of moderate size.
    /// @return nothing when the tables are the same
    static std::vector<RecordedEvent> Between(const SocketMap& before, const SocketMap& after);

    /// Turns the table before into the one after.
    static void Apply(const RecordedEvent& change, SocketMap& table);
};

}  // namespace Agent
