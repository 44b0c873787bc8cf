// Alarms reach a real syslog server.

#include "LiveTest.h"
#include "sdk/JsonUtils.h"
#include "support/WaitUntil.h"

#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>

#include <signal.h>

#include <filesystem>
#include <memory>
#include <sstream>

namespace {

using TestSupport::ChildProcess;
using TestSupport::ReadText;
using TestSupport::WaitUntil;

/// rsyslog with a configuration of its own: a TCP port, a local socket, and one file that shows how
/// it understood each message.
class Server {
public:
    explicit Server(const TestSupport::TemporaryFolder& folder) : m_folder(folder) {
        const Poco::Net::ServerSocket free(Poco::Net::SocketAddress("127.0.0.1", 0));
        m_port = free.address().port();
        // Without a queue in memory: what was received is in the file when it ends.
        m_config = m_folder.Write(
            "rsyslog.conf", "global(workDirectory=\"" + m_folder.Path() +
                                "\" maxMessageSize=\"64k\")\n"
                                "module(load=\"imtcp\")\n"
                                "module(load=\"imuxsock\" SysSock.Use=\"off\")\n"
                                "input(type=\"imtcp\" address=\"127.0.0.1\" port=\"" +
                                std::to_string(m_port) +
                                "\")\n"
                                "input(type=\"imuxsock\" Socket=\"" +
                                Socket() +
                                "\" UseSpecialParser=\"off\")\n"
                                "input(type=\"imuxsock\" Socket=\"" +
                                DaemonSocket() +
                                "\")\n"
                                "template(name=\"shown\" type=\"string\" "
                                "string=\"%inputname% %syslogfacility-text%.%syslogseverity-text% "
                                "%app-name% %msg:R,ERE,0,DFLT:\\\\{.*--end%\\n\")\n"
                                "action(type=\"omfile\" file=\"" +
                                m_folder / "received" + "\" template=\"shown\")\n");
    }

    std::string Socket() const { return m_folder / "log"; }
    std::string DaemonSocket() const { return m_folder / "daemon"; }
    std::string Outputs() const {
        return "json:syslog:tcp:127.0.0.1:" + std::to_string(m_port) +
               ",json:syslog:unix:" + Socket() + ",json:syslog:local:" + DaemonSocket();
    }

    void Start() {
        m_child = std::make_unique<ChildProcess>(
            std::vector<std::string>{"rsyslogd", "-n", "-f", m_config, "-i", m_folder / "pid"});
        EXPECT_TRUE(WaitUntil([this] {
            return std::filesystem::exists(Socket()) && std::filesystem::exists(DaemonSocket());
        })) << m_child->Errors();
    }
    void Stop() {
        m_child->Signal(SIGTERM);
        EXPECT_EQ(m_child->Wait(), 0);
    }

    /// How often an alarm of a command came in by a kind of input, as what it should be.
    int Count(const std::string& input, const std::string& command) const {
        std::istringstream lines(ReadText(m_folder / "received"));
        int count = 0;
        for (std::string line; std::getline(lines, line);) {
            const std::string head = input + " authpriv.alert vmescape-agent ";
            Json::Value alarm;
            count +=
                line.rfind(head, 0) == 0 &&
                        SDK::JsonUtils::ParseJsonStr(line.c_str() + head.length(),
                                                     line.length() - head.length(), alarm) == 0 &&
                        alarm["process_info"][0]["process_cmdline"] == command
                    ? 1
                    : 0;
        }
        return count;
    }

private:
    const TestSupport::TemporaryFolder& m_folder;
    std::string m_config;
    int m_port = 0;
    std::unique_ptr<ChildProcess> m_child;
};

class Syslog : public LiveTest {
protected:
    void SetUp() override {
        LiveTest::SetUp();
        Need(ChildProcess::Run({"rsyslogd", "-v"}).m_status == 0 ? "" : "rsyslogd is missing");
    }
};

TEST_F(Syslog, GetsEveryAlarmOnceOverBothWaysAlsoThoseOfATimeWithoutServer) {
    const TestSupport::TemporaryFolder folder;
    Server server(folder);
    server.Start();
    Agent agent(BUILD_FOLDER, DenyList(), {"--output", server.Outputs()});
    const auto arrives = [&server](const std::string& command) {
        return WaitUntil([&] {
            return server.Count("imtcp", command) == 1 && server.Count("imuxsock", command) == 2;
        });
    };
    const Qemu first({"-name", "guest=vm-first"});
    first.RunShell("/usr/bin/true before");
    EXPECT_TRUE(arrives("/usr/bin/true before")) << ReadText(folder / "received") << agent.Log();
    server.Stop();
    const Qemu second({"-name", "guest=vm-second"});
    second.RunShell("for i in 1 2 3 4 5; do /usr/bin/true $i; done; exit 1");
    EXPECT_TRUE(agent.WaitForLog("cannot be written: "));
    const ChildProcess::Result status = ChildProcess::Run(
        {BUILD_FOLDER "/bin/vmescape-agent", "status", "--socket", agent.StatusSocket()});
    EXPECT_EQ(status.m_status, 1);
    EXPECT_NE(status.m_output.find("cannot be written: "), std::string::npos) << status.m_output;
    server.Start();
    for (int i = 1; i <= 5; ++i) {
        EXPECT_TRUE(arrives("/usr/bin/true " + std::to_string(i))) << i << agent.Log();
    }
    EXPECT_TRUE(agent.WaitForLog("can be written again. 0 alarms failed so far."));
    EXPECT_EQ(agent.Stop(SIGTERM), 0);
    server.Stop();
    EXPECT_EQ(server.Count("imtcp", "/usr/bin/true before"), 1);
}

}  // namespace
