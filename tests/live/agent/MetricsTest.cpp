// The status as metrics, read by a real client of their format.

#include "LiveTest.h"
#include "support/WaitUntil.h"

#include <signal.h>

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

namespace {

using TestSupport::ChildProcess;
using TestSupport::WaitUntil;

const std::string kAgent = BUILD_FOLDER "/bin/vmescape-agent";

// Asks at an address: http://HOST:PORT or unix:/PATH.
constexpr const char* kAsk = R"(
import http.client, socket, sys

class Local(http.client.HTTPConnection):
    def connect(self):
        self.sock = socket.socket(socket.AF_UNIX)
        self.sock.connect(self.host)

def ask(what):
    kind, where = sys.argv[1].split(":", 1)
    connection = Local(where) if kind == "unix" else http.client.HTTPConnection(where[2:])
    connection.request("GET", what)
    answer = connection.getresponse()
    return answer.status, answer.read().decode()
)";

// Reads the metrics as Prometheus' own library does, and prints the value of one sample.
constexpr const char* kRead = R"(
from prometheus_client.parser import text_string_to_metric_families
wanted = dict(pair.split("=", 1) for pair in sys.argv[3:])
for family in text_string_to_metric_families(ask("/metrics")[1]):
    for sample in family.samples:
        if sample.name == sys.argv[2] and wanted.items() <= sample.labels.items():
            print(sample.value)
)";

// The same with the histogram of a book. Prints how many were observed, or what is wrong with it.
constexpr const char* kReadHistogram = R"(
import math
from prometheus_client.parser import text_string_to_metric_families
found = {family.name: family for family in text_string_to_metric_families(ask("/metrics")[1])}
family = found["vmescape_latency_seconds"]
mine = [sample for sample in family.samples if sample.labels["book"] == sys.argv[2]]
buckets = [(float(s.labels["le"]), s.value) for s in mine if s.name.endswith("_bucket")]
count, = [sample.value for sample in mine if sample.name.endswith("_count")]
total, = [sample.value for sample in mine if sample.name.endswith("_sum")]
if family.type != "histogram" or len(buckets) != 13:
    print("no histogram", family)
elif [bound for bound, _ in buckets] != sorted(bound for bound, _ in buckets):
    print("bounds do not rise", buckets)
elif [below for _, below in buckets] != sorted(below for _, below in buckets):
    print("not cumulative", buckets)
elif buckets[-1] != (math.inf, count) or (total > 0) != (count > 0):
    print("the ends do not meet", buckets, count, total)
else:
    print(int(count))
)";

class Metrics : public LiveTest {
protected:
    void SetUp() override {
        LiveTest::SetUp();
        Need(ChildProcess::Run({"/usr/bin/python3", "-c", "import prometheus_client"}).m_status == 0
                 ? ""
                 : "prometheus_client is missing");
    }

    /// What a program says that asks at the address.
    std::string Run(const std::string& program, std::vector<std::string> arguments = {}) const {
        arguments.insert(arguments.begin(), {"/usr/bin/python3", "-c", kAsk + program, m_address});
        const ChildProcess::Result result = ChildProcess::Run(arguments);
        EXPECT_EQ(result.m_status, 0) << result.m_errors;
        return result.m_output;
    }

    /// The value of a sample; "" when there is none.
    std::string Value(const std::string& name, const std::string& label = "vm=") const {
        std::vector<std::string> arguments = {name};
        if (label != "vm=") {
            arguments.push_back(label);
        }
        return Run(kRead, arguments);
    }
    double Machines() const { return std::atof(Value("vmescape_machines").c_str()); }
    std::string Health() const { return Run("print(*ask('/health'), end='')"); }
    std::string Latencies(const std::string& book) const { return Run(kReadHistogram, {book}); }

    /// Waits until a server says where it is.
    bool WaitForAddress(ChildProcess& server) {
        std::smatch address;
        const bool said = WaitUntil([&] {
            return std::regex_search(server.Errors(), address,
                                     std::regex("(http://[^/]*|unix:[^ ]*) ?/metrics"));
        });
        m_address = said ? address[1] : std::string();
        return said;
    }

    std::string m_address;
};

TEST_F(Metrics, CountAlarmsByClassAndTellUpFromDegradedAndDegradedFromDown) {
    Agent agent(BUILD_FOLDER, DenyList());
    ChildProcess server(
        {kAgent, "metrics", "--listen", "127.0.0.1:0", "--socket", agent.StatusSocket()});
    ASSERT_TRUE(WaitForAddress(server)) << server.Errors();
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
    const double others = Machines();
    const Qemu qemu({"-name", "guest=vm-metrics"});
    qemu.RunShell("id");
    EXPECT_FALSE(WaitFor(agent, "system/fork", "id").isNull());
    EXPECT_TRUE(WaitUntil([&] { return Machines() == others + 1; }));
    EXPECT_TRUE(WaitUntil([&] {
        const std::string alarms = Value("vmescape_kinds_total", "kind=vmescape_0001");
        return !alarms.empty() && std::stod(alarms) >= 2;
    })) << "the shell and the command";
    EXPECT_EQ(Value("vmescape_alarmed_machines", "class=vmescape_0001"), "1.0\n");
    EXPECT_EQ(Value("vmescape_trouble", "book=alarms"), "0.0\n");
    agent.Policies().Write(Agent::POLICY_FILE, "no JSON");
    EXPECT_TRUE(WaitUntil([&] { return Health().substr(0, 4) == "429 "; }));
    EXPECT_EQ(Value("vmescape_policy_refused"), "1.0\n");
    EXPECT_EQ(agent.Stop(SIGTERM), 0);
    EXPECT_EQ(Health().substr(0, 4), "503 ");
    EXPECT_EQ(Value("vmescape_up"), "0.0\n");
    server.Signal(SIGTERM);
    EXPECT_EQ(server.Wait(), 0);
}

TEST_F(Metrics, TellHowLongCommandsTookToTheDetectionAndAlarmsToTheirOutput) {
    Agent agent(BUILD_FOLDER, DenyList());
    ChildProcess server(
        {kAgent, "metrics", "--listen", "127.0.0.1:0", "--socket", agent.StatusSocket()});
    ASSERT_TRUE(WaitForAddress(server)) << server.Errors();
    EXPECT_EQ(Latencies("alarms"), "0\n") << "from the start, so that the first one is a change";
    const Qemu qemu({"-name", "guest=vm-latency"});
    qemu.RunShell("id");
    EXPECT_FALSE(WaitFor(agent, "system/fork", "id").isNull());
    const auto told = [this](const std::string& book) {
        const std::string text = Latencies(book);
        EXPECT_TRUE(std::regex_match(text, std::regex("[0-9]+\n"))) << text;
        return std::atol(text.c_str());
    };
    EXPECT_TRUE(WaitUntil([&] { return told("alarms") >= 2; })) << "the shell and the command";
    EXPECT_GE(told("process_events"), 2);
}

TEST_F(Metrics, AreServedAtALocalSocketThatIsReplacedAndRemoved) {
    const Agent agent(BUILD_FOLDER, DenyList());
    const TestSupport::TemporaryFolder folder;
    const std::string path = folder / "metrics";
    const std::vector<std::string> serve = {kAgent,         "metrics",  "--listen",
                                            "unix:" + path, "--socket", agent.StatusSocket()};
    {
        ChildProcess killed(serve);
        ASSERT_TRUE(WaitForAddress(killed)) << killed.Errors();
    }
    EXPECT_TRUE(std::filesystem::is_socket(path)) << "left by the one that was killed";
    ChildProcess server(serve);
    ASSERT_TRUE(WaitForAddress(server)) << server.Errors();
    EXPECT_EQ(m_address, "unix:" + path);
    EXPECT_EQ(Value("vmescape_up"), "1.0\n");
    EXPECT_EQ(Health().substr(0, 4), "200 ");
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms::owner_all);
    EXPECT_EQ(ChildProcess::Run(serve).m_status, 1) << "one listens there";
    EXPECT_EQ(Value("vmescape_up"), "1.0\n") << "and still does";
    server.Signal(SIGTERM);
    EXPECT_EQ(server.Wait(), 0);
    EXPECT_FALSE(std::filesystem::exists(path));
}

}  // namespace
