#pragma once

#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Timespan.h>

#include <functional>

namespace Engine {

/// A TCP connection on which connecting, sending and receiving wait for the other side only as long
/// as the user likes, who may lose patience at any moment: all waiting is done in slices of a tenth
/// of a second. To its users it is a blocking socket like others; TLS can be put over it.
///
/// Threads: one at a time.
class PatientSocket : public Poco::Net::StreamSocket {
public:
    /// @return whether it is time to stop waiting. Asked before each wait, on the waiting thread
    using GiveUp = std::function<bool()>;

    /// Connects.
    /// @throws Poco::Exception when the other side refuses; Poco::TimeoutException, here and from
    ///         every function that waits, when the patience has ended
    PatientSocket(const Poco::Net::SocketAddress& address, GiveUp giveUp);
};

}  // namespace Engine
