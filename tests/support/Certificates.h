#pragma once

#include "support/TemporaryFolder.h"

#include <string>

namespace TestSupport {

/// An authority of a test's own, and a server's certificate that it has signed, made with openssl.
/// They are valid for a day. All of it is gone when the object is.
class Certificates {
public:
    /// Fails the test when they cannot be made.
    /// @param names  whom the server's certificate is for, as openssl has it: "DNS:host,IP:::1"
    /// @param days   how long that one is valid; negative: until so many days ago
    explicit Certificates(const std::string& names = "DNS:localhost,IP:127.0.0.1", int days = 1);

    /// Paths, all in PEM.
    std::string Authority() const { return m_folder / "authority.pem"; }
    std::string Certificate() const { return m_folder / "server.pem"; }
    std::string Key() const { return m_folder / "server.key"; }

    /// Why there cannot be any here; empty when there can.
    static std::string Missing();

private:
    TemporaryFolder m_folder;
};

}  // namespace TestSupport
