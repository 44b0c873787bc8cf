#include "Selftest.h"

#include "sdk/JsonUtils.h"

#include <Poco/Format.h>
#include <Poco/NumberFormatter.h>
#include <Poco/NumberParser.h>
#include <json/value.h>

#include <chrono>
#include <filesystem>
#include <iostream>
#include <optional>

namespace Agent {

namespace {

using Stream = ChildProgram::Stream;
using Clock = std::chrono::steady_clock;

// Not longer than the 15 bytes of a name that the kernel keeps.
constexpr const char* kActorName = "vmescape-trial";
constexpr const char* kMachine = "vmescape-selftest";

constexpr std::chrono::seconds kStartPatience(30);

// Commands and accesses are alarms at once; ports are looked at every ten seconds.
constexpr int kPromptS = 5;
constexpr int kPortS = 20;

}  // namespace

Selftest::Selftest(const Options& options)
    : m_options(options), m_scratch("selftest"), m_folder(m_scratch.Path()) {}

int Selftest::Run() {
    WriteFiles();
    if (const int code = StartAgent(); code != EXIT_GOOD) {
        return code;
    }
    const std::string actor = m_folder + '/' + kActorName;
    std::filesystem::create_symlink(ChildAgent::OwnProgram(), actor);
    m_actor = std::make_unique<ChildProgram>(
        actor, std::vector<std::string>{actor, "selftest-actor", "-name",
                                        std::string("guest=") + kMachine});
    std::vector<Step> steps = {
        {"command", "vmescape_0001", "command", kPromptS},
        {"file", "vmescape_0002", "file " + m_folder + "/secrets/key", kPromptS},
        {"port", "vmescape_0003", "port", kPortS},
    };
    for (Step& step : steps) {
        Play(step);
        if (Interruption::Came()) {
            Complain("interrupted");
            return EXIT_FAILED;
        }
    }
    return Report(steps);
}

void Selftest::WriteFiles() const {
    m_scratch.MakeFolder("policies");
    m_scratch.MakeFolder("secrets");
    m_scratch.Write("secrets/key", "secret\n");
    m_scratch.Write("agent.json", "{}\n");
    // Allow lists that hold nothing: whatever the actor does is forbidden.
    const auto rule = [](const std::string& key) {
        return Poco::format(R"("monitor_list":[{"%s":"%s",)", key, std::string(kActorName));
    };
    WritePolicy("qemu_cmd_detect_feature", rule("virtcmd") + R"("action":true,"cmdlist":[]}])");
    WritePolicy("qemu_file_detect_feature",
                Poco::format(R"("action":true,"senstive_dirs":["%s/secrets"],)", m_folder) +
                    rule("virtmonitor") + R"("filelist":[]}])");
    WritePolicy("qemu_port_detect_feature", rule("virtmonitor") + R"("portlist":[]}])");
}

void Selftest::WritePolicy(const std::string& feature, const std::string& content) const {
    m_scratch.Write(
        "policies/" + feature + ".json",
        R"({"module_name":"vmescape_module","enabled":true,"hash":"selftest","content":{)" +
            content + "}}\n");
}

int Selftest::StartAgent() {
    ChildAgent::Setup setup{ChildAgent::OwnProgram(),
                            m_folder + "/policies",
                            3,
                            true,
                            "",
                            {"--config", m_folder + "/agent.json"}};
    for (const auto& [key, text] : m_options.m_settings) {
        setup.m_arguments.insert(setup.m_arguments.end(), {"-o", Poco::format("%s=%s", key, text)});
    }
    m_agent = std::make_unique<ChildAgent>(setup);
    std::string wrong;
    const int code = m_agent->WaitUntilItWatches(kStartPatience, wrong);
    if (!wrong.empty()) {
        Complain(wrong);
    }
    return code;
}

void Selftest::Play(Step& step) const {
    const auto deadline = Clock::now() + std::chrono::seconds(step.m_patienceS);
    m_actor->Write(step.m_order);
    const std::optional<std::string> began = m_actor->ReadLine(Stream::OUTPUT, deadline);
    Poco::Int64 nanoseconds = 0;
    if (!began || !Poco::NumberParser::tryParse64(*began, nanoseconds)) {
        step.m_failure = "the process that plays the machine does not answer";
        return;
    }
    step.m_seen = ReadAlarm(step, deadline);
    const auto took = Clock::now().time_since_epoch() - std::chrono::nanoseconds(nanoseconds);
    step.m_milliseconds = std::chrono::duration<double, std::milli>(took).count();
    if (!step.m_seen) {
        step.m_failure = m_actor->ReadLine(Stream::OUTPUT, Clock::now()).value_or("");
    }
}

/// Waits for the alarm of a class about our machine. Those of others are none of its business.
bool Selftest::ReadAlarm(const Step& step, ChildProgram::Deadline deadline) const {
    while (const auto line = m_agent->Program().ReadLine(Stream::OUTPUT, deadline)) {
        Json::Value alarm;
        if (SDK::JsonUtils::ParseJsonStr(line->c_str(), line->length(), alarm) == 0 &&
            alarm["event_classid"] == step.m_class &&
            alarm["resource_info"]["vm_name"] == kMachine) {
            return true;
        }
    }
    return false;
}

int Selftest::Report(const std::vector<Step>& steps) const {
    bool good = true;
    Json::Value document;
    for (const Step& step : steps) {
        good = good && step.m_seen;
        Json::Value& entry = document["alarms"][step.m_name];
        entry["event_classid"] = step.m_class;
        entry["seen"] = step.m_seen;
        if (step.m_seen) {
            entry["milliseconds"] = step.m_milliseconds;
        } else if (!step.m_failure.empty()) {
            entry["failure"] = step.m_failure;
        }
        if (!m_options.m_json) {
            std::cout << Poco::format("%-8s%s ", step.m_name, step.m_class)
                      << (step.m_seen
                              ? "alarm after " +
                                    Poco::NumberFormatter::format(step.m_milliseconds, 1) + " ms"
                              : Poco::format("NO ALARM within %d s", step.m_patienceS))
                      << (step.m_failure.empty() ? "" : ": " + step.m_failure) << std::endl;
        }
    }
    document["good"] = good;
    std::cout << (m_options.m_json ? SDK::JsonUtils::JsonToString(document)
                                   : std::string("selftest: ") + (good ? "good" : "failed"))
              << std::endl;
    return good ? EXIT_GOOD : EXIT_FAILED;
}

void Selftest::Complain(const std::string& text) const {
    std::cerr << "vmescape-agent: selftest: " << text << '\n';
}

}  // namespace Agent
