#include "outputs/PatientSocket.h"

#include <Poco/Exception.h>
#include <Poco/Net/StreamSocketImpl.h>

#include <algorithm>
#include <utility>

namespace Engine {

namespace {

using Poco::Net::SocketAddress;

const Poco::Timespan kSlice(0, 100000);

// Longer than any patience: where Poco asks for a time to wait, it is given this one.
const Poco::Timespan kForever(1, 0, 0, 0, 0);

/// The descriptor does not block; who waits does so in Wait. That is where OpenSSL, which reads and
/// writes the descriptor itself, comes to as well, through poll.
class Impl : public Poco::Net::StreamSocketImpl {
public:
    explicit Impl(PatientSocket::GiveUp giveUp) : m_giveUp(std::move(giveUp)) {}

    using StreamSocketImpl::receiveBytes;
    using StreamSocketImpl::sendBytes;

    void Connect(const SocketAddress& address) {
        connectNB(address);
        Wait(SELECT_WRITE | SELECT_ERROR);
        if (const int wrong = socketError(); wrong != 0) {
            error(wrong, address.toString());
        }
        setReceiveTimeout(kForever);
        setSendTimeout(kForever);
        setNoDelay(true);
    }

    int sendBytes(const void* buffer, int length, int flags) override {
        const char* bytes = static_cast<const char*>(buffer);
        for (int done = 0; done < length;) {
            Wait(SELECT_WRITE);
            const int left = length - done;
            // NOLINTNEXTLINE(bugprone-parent-virtual-call): the parent's own does not come back
            const int sent = SocketImpl::sendBytes(bytes + done, left, flags);
            done += std::max(sent, 0);
        }
        return length;
    }

    int receiveBytes(void* buffer, int length, int flags) override {
        int received = -1;  // what a wake-up without reason gives
        while (received < 0) {
            Wait(SELECT_READ);
            received = SocketImpl::receiveBytes(buffer, length, flags);
        }
        return received;
    }

    bool poll(const Poco::Timespan& timeout, int mode) override {
        for (Poco::Timespan left = timeout; !m_giveUp(); left -= kSlice) {
            if (SocketImpl::poll(std::min(left, kSlice), mode)) {
                return true;
            }
            if (left <= kSlice) {
                return false;
            }
        }
        return false;
    }

    bool getBlocking() const override { return true; }

private:
    void Wait(int mode) {
        if (!poll(kForever, mode)) {
            throw Poco::TimeoutException();
        }
    }

    const PatientSocket::GiveUp m_giveUp;
};

}  // namespace

PatientSocket::PatientSocket(const SocketAddress& address, GiveUp giveUp)
    : StreamSocket(new Impl(std::move(giveUp))) {
    static_cast<Impl*>(impl())->Connect(address);
}

}  // namespace Engine
