// Whatever stands in a datagram of socket messages, it is read, refused, or asked for again.

#include "SockDiagMessageReader.h"

#include "FuzzInput.h"

#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using Reader = NetCollect::SockDiagMessageReader;
    const std::vector<char> exact(data, data + size);  // so that a byte too far is noticed
    std::vector<NetCollect::Socket> sockets;
    int error = 0;
    const Reader::Result result = Reader::Read(exact.data(), exact.size(), 1, 6, sockets, error);
    Require((error != 0) <= (result == Reader::Result::FAILED));
    for (const NetCollect::Socket& socket : sockets) {
        Require(socket.m_inode != 0 && socket.m_port > 0 && socket.m_port <= UINT16_MAX);
    }
    return 0;
}
