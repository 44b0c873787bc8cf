#include "support/Certificates.h"

#include "support/ChildProcess.h"

#include <gtest/gtest.h>

#include <vector>

namespace TestSupport {

namespace {

using Words = std::vector<std::string>;

/// @param more  arguments behind those that make a key
void Run(Words command, const Words& more) {
    command.insert(command.end(), more.begin(), more.end());
    const ChildProcess::Result result = ChildProcess::Run(command);
    EXPECT_EQ(result.m_status, 0) << result.m_errors;
}

}  // namespace

Certificates::Certificates(const std::string& names, int days) {
    const Words newKey = {
        "openssl", "req", "-newkey", "ec", "-nodes", "-pkeyopt", "ec_paramgen_curve:P-256"};
    const std::string authorityKey = m_folder / "authority.key";
    const std::string request = m_folder / "server.csr";
    Run(newKey, {"-x509", "-days", "1", "-subj", "/CN=authority of a test", "-keyout", authorityKey,
                 "-out", Authority()});
    Run(newKey, {"-subj", "/CN=server of a test", "-addext", "subjectAltName=" + names, "-keyout",
                 Key(), "-out", request});
    Run({"openssl", "x509", "-req"},
        {"-in", request, "-CA", Authority(), "-CAkey", authorityKey, "-CAcreateserial",
         "-copy_extensions", "copy", "-days", std::to_string(days), "-out", Certificate()});
}

std::string Certificates::Missing() {
    return ChildProcess::Run({"openssl", "version"}).m_status == 0 ? "" : "openssl is missing";
}

}  // namespace TestSupport
