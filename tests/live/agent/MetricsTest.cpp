// The status as metrics, read by a real client of their format.

#include "LiveTest.h"
#include "support/WaitUntil.h"

#include <signal.h>

#include <regex>

namespace {

using TestSupport::ChildProcess;
using TestSupport::WaitUntil;

const std::string kAgent = BUILD_FOLDER "/bin/vmescape-agent";

// Reads what an address says, as Prometheus' own library does, and prints the value of one sample.
constexpr const char* kRead = R"(
import sys, urllib.request
from prometheus_client.parser import text_string_to_metric_families
text = urllib.request.urlopen(sys.argv[1] + "/metrics").read().decode()
wanted = dict(pair.split("=", 1) for pair in sys.argv[3:])
for family in text_string_to_metric_families(text):
    for sample in family.samples:
        if sample.name == sys.argv[2] and wanted.items() <= sample.labels.items():
            print(sample.value)
)";

class Metrics : public LiveTest {
protected:
    void SetUp() override {
        LiveTest::SetUp();
        Need(ChildProcess::Run({"/usr/bin/python3", "-c", "import prometheus_client"}).m_status == 0
                 ? ""
                 : "prometheus_client is missing");
    }

    /// The value of a sample; "" when there is none.
    std::string Value(const std::string& name, const std::string& label = "vm=") {
        std::vector<std::string> arguments = {"/usr/bin/python3", "-c", kRead, m_address, name};
        if (label != "vm=") {
            arguments.push_back(label);
        }
        const ChildProcess::Result result = ChildProcess::Run(arguments);
        EXPECT_EQ(result.m_status, 0) << result.m_errors;
        return result.m_output;
    }
    std::string Health() const {
        return ChildProcess::Run({"/usr/bin/python3", "-c",
                                  "import sys, http.client\n"
                                  "c = http.client.HTTPConnection(sys.argv[1][7:])\n"
                                  "c.request('GET', '/health')\n"
                                  "r = c.getresponse()\n"
                                  "print(r.status, r.read().decode(), end='')",
                                  m_address})
            .m_output;
    }

    std::string m_address;
};

TEST_F(Metrics, CountAlarmsByClassAndTellUpFromDegradedAndDegradedFromDown) {
    Agent agent(BUILD_FOLDER, DenyList());
    ChildProcess server(
        {kAgent, "metrics", "--listen", "127.0.0.1:0", "--socket", agent.StatusSocket()});
    std::smatch address;
    ASSERT_TRUE(WaitUntil([&] {
        return std::regex_search(server.Errors(), address, std::regex("(http://[^/]*)/metrics"));
    })) << server.Errors();
    m_address = address[1];
    const std::string powers =
        TestSupport::ReadText("/proc/" + std::to_string(server.Pid()) + "/status");
    for (const char* line : {"CapPrm:\t0000000000000000", "CapEff:\t0000000000000000",
                             "CapBnd:\t0000000000000000", "NoNewPrivs:\t1"}) {
        EXPECT_NE(powers.find(line), std::string::npos) << line << powers;
    }
    EXPECT_EQ(Value("vmescape_up"), "1.0\n");
    EXPECT_EQ(Value("vmescape_kinds_total", "kind=vmescape_0001"), "0.0\n")
        << "from the start, so that the first alarm is a change";
    EXPECT_EQ(Health().substr(0, 4), "200 ");
    const Qemu qemu({"-name", "guest=vm-metrics"});
    qemu.RunShell("id");
    EXPECT_FALSE(WaitFor(agent, "system/fork", "id").isNull());
    EXPECT_TRUE(WaitUntil([&] {
        const std::string alarms = Value("vmescape_kinds_total", "kind=vmescape_0001");
        return !alarms.empty() && std::stod(alarms) >= 2;
    })) << "the shell and the command";
    agent.Policies().Write(Agent::POLICY_FILE, "no JSON");
    EXPECT_TRUE(WaitUntil([&] { return Health().substr(0, 4) == "429 "; }));
    EXPECT_EQ(Value("vmescape_policy_refused"), "1.0\n");
    EXPECT_EQ(agent.Stop(SIGTERM), 0);
    EXPECT_EQ(Health().substr(0, 4), "503 ");
    EXPECT_EQ(Value("vmescape_up"), "0.0\n");
    server.Signal(SIGTERM);
    EXPECT_EQ(server.Wait(), 0);
}

}  // namespace
