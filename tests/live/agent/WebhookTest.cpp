// Alarms reach a real web server, over TLS and without.

#include "LiveTest.h"
#include "sdk/JsonUtils.h"
#include "support/Certificates.h"
#include "support/WaitUntil.h"

#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>

#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <set>
#include <sstream>
#include <vector>

namespace {

using TestSupport::Certificates;
using TestSupport::ChildProcess;
using TestSupport::ReadText;
using TestSupport::WaitUntil;

constexpr const char* kToken = "0123456789abcdef";

/// Python's web server, on a port of its own, that wants a token.
class Server {
public:
    /// @param certificates  null: without TLS
    explicit Server(const Certificates* certificates) : m_certificates(certificates) {
        const Poco::Net::ServerSocket free(Poco::Net::SocketAddress("127.0.0.1", 0));
        m_port = free.address().port();
        m_folder.Write("token", kToken);
    }

    std::string Url() const {
        return (m_certificates == nullptr ? "http" : "https") + std::string("://localhost:") +
               std::to_string(m_port) + "/alarms/of/this/host";
    }

    void Start() {
        std::vector<std::string> arguments = {
            "python3", SOURCE_FOLDER "/tests/support/programs/webhook_server.py",
            std::to_string(m_port), m_folder.Path()};
        if (m_certificates != nullptr) {
            arguments.push_back(m_certificates->Certificate());
            arguments.push_back(m_certificates->Key());
        }
        std::filesystem::remove(m_folder / "ready");
        m_child = std::make_unique<ChildProcess>(arguments);
        EXPECT_TRUE(WaitUntil([this] { return ReadText(m_folder / "ready") == "ready\n"; }))
            << m_child->Errors();
    }
    void Stop() {
        m_child->Signal(SIGTERM);
        EXPECT_TRUE(m_child->Wait().has_value());
    }

    /// All alarms that it took, in its order.
    std::vector<Json::Value> Alarms() const { return Read("received"); }

    /// The headers of all requests with which they came.
    std::vector<Json::Value> Requests() const { return Read("requests"); }

private:
    std::vector<Json::Value> Read(const std::string& name) const {
        std::vector<Json::Value> values;
        std::istringstream lines(ReadText(m_folder / name));
        for (std::string line; std::getline(lines, line) && !lines.eof();) {
            EXPECT_EQ(
                SDK::JsonUtils::ParseJsonStr(line.c_str(), line.length(), values.emplace_back()), 0)
                << line;
        }
        return values;
    }

    const Certificates* m_certificates;
    const TestSupport::TemporaryFolder m_folder;
    int m_port = 0;
    std::unique_ptr<ChildProcess> m_child;
};

class Webhook : public LiveTest, public testing::WithParamInterface<bool> {
protected:
    void SetUp() override {
        LiveTest::SetUp();
        Need(Certificates::Missing());
    }

    /// What makes the agent post to a server with a token of a file.
    static std::vector<std::string> Arguments(const Server& server, const std::string& headers,
                                              const Certificates& certificates) {
        return {"--log-level", "information",
                "--output",    "webhook",
                "-o",          "report.webhook.url=" + server.Url(),
                "-o",          "report.webhook.headers_file=" + headers,
                "-o",          "report.webhook.ca=" + certificates.Authority(),
                "-o",          "report.spool.folder=" + headers + ".spool"};
    }

    /// The commands "/usr/bin/true ..." that alarms are about, in their order.
    static std::vector<std::string> Commands(const Server& server) {
        std::vector<std::string> commands;
        for (const Json::Value& alarm : server.Alarms()) {
            if (Command(alarm).rfind("/usr/bin/true ", 0) == 0) {
                commands.push_back(Command(alarm).substr(14));
            }
        }
        return commands;
    }

    static ChildProcess::Result Status(const Agent& agent) {
        return ChildProcess::Run(
            {BUILD_FOLDER "/bin/vmescape-agent", "status", "--socket", agent.StatusSocket()});
    }
};

TEST_P(Webhook, GetsEveryAlarmOnceAndInOrderAlsoThoseOfATimeWithoutServer) {
    using Texts = std::vector<std::string>;
    const Certificates certificates;
    const TestSupport::TemporaryFolder folder;
    const std::string headers = folder.Write("headers", "Authorization: Bearer wrong-token\n");
    ASSERT_EQ(::chmod(headers.c_str(), 0600), 0);
    Server server(GetParam() ? &certificates : nullptr);
    server.Start();
    Agent agent(BUILD_FOLDER, DenyList(), Arguments(server, headers, certificates));
    const auto arrive = [&server](const Texts& commands) {
        return WaitUntil([&] { return Commands(server) == commands; }, std::chrono::seconds(20));
    };
    const Qemu first({"-name", "guest=vm-first"});
    first.RunShell("/usr/bin/true before");
    EXPECT_TRUE(agent.WaitForLog(" answered 401 Unauthorized: \"unknown token ***\""))
        << agent.Log();
    folder.Write("headers", "Authorization: Bearer " + std::string(kToken) + '\n');
    EXPECT_TRUE(arrive({"before"})) << agent.Log();

    server.Stop();
    const Qemu second({"-name", "guest=vm-second"});
    second.RunShell("for i in 1 2 3 4 5; do /usr/bin/true $i; done; exit 1");
    ChildProcess::Result status;
    EXPECT_TRUE(WaitUntil([&] {
        status = Status(agent);
        return status.m_status == 1;
    }));
    EXPECT_NE(status.m_output.find("Output(webhook) cannot be written: "), std::string::npos)
        << status.m_output;
    server.Start();
    EXPECT_TRUE(arrive({"before", "1", "2", "3", "4", "5"})) << agent.Log();
    EXPECT_TRUE(WaitUntil([&] { return Status(agent).m_status == 0; })) << agent.Log();
    EXPECT_EQ(agent.Stop(SIGTERM), 0);
    server.Stop();

    std::set<std::string> ids;
    for (const Json::Value& alarm : server.Alarms()) {
        EXPECT_TRUE(ids.insert(alarm["event_id"].asString()).second)
            << "it came twice: " << Command(alarm);
    }
    EXPECT_EQ(agent.CountLog("Output(webhook) ends: " + std::to_string(ids.size()) +
                             " alarms written, 0 dropped, 0 failed"),
              1)
        << agent.Log();
    std::set<std::string> keys;
    for (const Json::Value& request : server.Requests()) {
        EXPECT_TRUE(keys.insert(request["Idempotency-Key"].asString()).second);
    }
    for (const std::string& secret : Texts{kToken, "wrong-token", "/alarms/of"}) {
        EXPECT_EQ(agent.Log().find(secret), std::string::npos) << agent.Log();
        EXPECT_EQ(status.m_output.find(secret), std::string::npos) << status.m_output;
    }
}

INSTANTIATE_TEST_SUITE_P(Plain, Webhook, testing::Values(false));
INSTANTIATE_TEST_SUITE_P(Tls, Webhook, testing::Values(true));

class WebhookStart : public LiveTest {};

TEST_F(WebhookStart, IsRefusedWithAHeadersFileThatOthersMayRead) {
    const TestSupport::TemporaryFolder folder;
    const std::string headers = folder.Write("headers", "Authorization: Bearer token\n");
    ASSERT_EQ(::chmod(headers.c_str(), 0644), 0);
    const ChildProcess::Result result = ChildProcess::Run(
        {BUILD_FOLDER "/bin/vmescape-agent", "run", "--policies", folder.Path(), "--output",
         "webhook", "-o", "status.socket=" + folder / "socket", "-o",
         "report.webhook.url=http://127.0.0.1:9/", "-o", "report.webhook.headers_file=" + headers});
    EXPECT_EQ(result.m_status, 1);
    EXPECT_NE(result.m_errors.find("Output(webhook) is refused: " + headers +
                                   " may be read by others (mode 0644), expected 0600 at the most"),
              std::string::npos)
        << result.m_errors;
}

}  // namespace
