// A datagram of the process connector is read message by message to its end, whatever stands in it.

#include "ConnectorMessageReader.h"
#include "FuzzInput.h"

#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using ProcessCollect::ConnectorMessage;
    for (std::size_t at = 0; at < size;) {
        // Exact, so that a byte too far is noticed.
        const std::vector<char> rest(data + at, data + size);
        ConnectorMessage message;
        const std::size_t taken =
            ProcessCollect::ConnectorMessageReader::Read(rest.data(), rest.size(), message);
        Require(taken <= rest.size());
        if (taken == 0) {
            Require(message.m_kind == ConnectorMessage::Kind::OTHER && message.m_pid == 0);
            return 0;
        }
        at += taken;
    }
    return 0;
}
