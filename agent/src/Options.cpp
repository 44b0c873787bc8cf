#include "Options.h"

#include "Duration.h"
#include "SchemaVerb.h"
#include "Settings.h"

#include <CLI/CLI.hpp>

#include <iostream>

namespace Agent {

namespace {

constexpr const char* kFormatMeaning =
    "Alarms as text, json, ocsf or ecs; auto: text on a terminal and for journald, else json";

/// An option of "run" that is a setting by another name.
void AddSetting(CLI::App& run, Options& options, const char* flag, const char* key,
                const char* meaning) {
    run.add_option_function<std::string>(
           flag,
           [&options, key](const std::string& text) { options.m_settings.emplace_back(key, text); },
           meaning)
        ->type_name("VALUE");
}

/// Outputs, each with an option of its own or several with commas.
void AddOutputs(CLI::App& run, Options& options, const char* meaning) {
    run.add_option_function<std::vector<std::string>>(
           "--output",
           [&options](const std::vector<std::string>& outputs) {
               std::string all;
               for (const std::string& output : outputs) {
                   all += (all.empty() ? "" : ",") + output;
               }
               options.m_settings.emplace_back("report.output", all);
           },
           meaning)
        ->type_name("VALUE")
        ->allow_extra_args(false);
}

void AddRun(CLI::App& app, Options& options) {
    CLI::App* run = app.add_subcommand("run", "Watch this host's virtual machines until stopped");
    run->add_option("--config", options.m_config, "Configuration file (/etc/vmescape/agent.json)")
        ->type_name("FILE");
    AddSetting(*run, options, "--policies", "policies", "Folder of the feature policies");
    AddSetting(*run, options, "--modules", "modules", "Folder of the modules");
    AddSetting(*run, options, "--format", "report.format", kFormatMeaning);
    AddOutputs(*run, options,
               "Alarms to stdout, file:PATH, journald, syslog, syslog:local:PATH, "
               "syslog:unix:PATH, syslog:tcp:HOST:PORT, webhook or kafka, several with commas or "
               "options");
    AddSetting(*run, options, "--log-level", "log_level", "Least important lines to log");
    AddSetting(*run, options, "--record", "record.file",
               "New file to record what the detection is told in, for \"replay\"");
    run->add_option_function<std::vector<std::string>>(
           "-o",
           [&options](const std::vector<std::string>& pairs) {
               for (const std::string& pair : pairs) {
                   const std::size_t equals = pair.find('=');
                   if (equals == std::string::npos) {
                       throw CLI::ValidationError("-o",
                                                  "expected key=value, found \"" + pair + "\"");
                   }
                   options.m_settings.emplace_back(pair.substr(0, equals), pair.substr(equals + 1));
               }
           },
           "Set a configuration key")
        ->type_name("KEY=VALUE")
        ->allow_extra_args(false);
    run->footer("Keys of the configuration file and of -o:\n" + Settings::DescribeKeys() +
                "Exit status: 0 stopped by SIGTERM or SIGINT, 1 failed, 2 usage, 4 a privilege is "
                "missing, 6 bad configuration.");
    run->callback([&options] { options.m_verb = Options::Verb::RUN; });
}

void AddReplay(CLI::App& app, Options& options) {
    CLI::App* replay =
        app.add_subcommand("replay", "Judge by other policies what \"run --record\" has recorded");
    replay->add_option("FILE", options.m_recording, "The recording")->required();
    replay->add_flag("--json", options.m_json, "Write the summary as JSON");
    replay
        ->add_option("--config", options.m_config, "Configuration file (/etc/vmescape/agent.json)")
        ->type_name("FILE");
    AddSetting(*replay, options, "--policies", "policies", "Folder of the feature policies");
    AddSetting(*replay, options, "--modules", "modules", "Folder of the modules");
    AddSetting(*replay, options, "--format", "report.format", kFormatMeaning);
    AddOutputs(*replay, options,
               "Alarms to somewhere else than to stdout, as with run; the configured outputs do "
               "not count");
    AddSetting(*replay, options, "--log-level", "log_level", "Least important lines to log");
    replay->footer(
        "Alarms carry the recorded time. A summary goes to standard error.\n"
        "Exit status: 0 replayed, with alarms or without, 1 failed, 2 usage, 6 the recording, a "
        "policy or the configuration is wrong.");
    replay->callback([&options] { options.m_verb = Options::Verb::REPLAY; });
}

void AddCheck(CLI::App& app, Options& options) {
    CLI::App* check = app.add_subcommand("check", "Tell what is wrong with policy files");
    check->add_option("FILE", options.m_files, "Policy files, named after their features")
        ->required();
    check->add_flag("--json", options.m_json, "Print the result as JSON");
    check->footer(
        "Exit status: 0 good (warnings or not), 1 the result cannot be written, 2 usage, 6 bad.");
    check->callback([&options] { options.m_verb = Options::Verb::CHECK; });
}

void AddWhereItAnswers(CLI::App& verb, Options& options) {
    verb.add_option("--config", options.m_config,
                    "The agent's configuration file (/etc/vmescape/agent.json)")
        ->type_name("FILE");
    verb.add_option("--socket", options.m_socket, "Where it answers, if not as configured")
        ->type_name("PATH");
}

void AddStatus(CLI::App& app, Options& options) {
    CLI::App* status = app.add_subcommand("status", "Ask the agent that runs how it is");
    status->add_flag("--json", options.m_json, "Print the answer as it comes, as JSON");
    AddWhereItAnswers(*status, options);
    status->footer(
        "Exit status: 0 all is well, 1 it is degraded or there is no agent, 2 usage, 6 "
        "bad configuration.");
    status->callback([&options] { options.m_verb = Options::Verb::STATUS; });
}

void AddList(CLI::App& app, Options& options) {
    CLI::App* list = app.add_subcommand(
        "list", "Ask the agent that runs what it watches: policies in force, virtual machines");
    list->add_flag("--json", options.m_json, "Print the answer as it comes, as JSON");
    AddWhereItAnswers(*list, options);
    list->footer(
        "Tables show the beginning of long lists, --json all of them.\n"
        "Exit status: 0 good, 1 no agent answers, 2 usage, 6 bad configuration.");
    list->callback([&options] { options.m_verb = Options::Verb::LIST; });
}

void AddMetrics(CLI::App& app, Options& options) {
    CLI::App* metrics =
        app.add_subcommand("metrics", "The agent's status as metrics in Prometheus' text format");
    metrics
        ->add_option("--listen", options.m_listen,
                     "Serve /metrics and /health at a loopback address or a local socket until "
                     "stopped")
        ->type_name("HOST:PORT|unix:/PATH");
    AddWhereItAnswers(*metrics, options);
    metrics->footer(
        "Without --listen they are printed once.\n"
        "Exit status: 0 good, 1 no agent answers, or the address cannot be had, 2 usage, 6 bad "
        "configuration.");
    metrics->callback([&options] { options.m_verb = Options::Verb::METRICS; });
}

void AddSchema(CLI::App& app, Options& options) {
    CLI::App* schema = app.add_subcommand(
        "schema", "Print the JSON Schema of policies, of the configuration or of alarms");
    schema->add_option("NAME", options.m_schema, "Of what; without it the names are listed")
        ->check(CLI::IsMember(SchemaNames()))
        ->type_name("");
    schema->add_flag("--json", options.m_json,
                     "Print it on one line; without NAME all schemas by name");
    schema->footer(
        "They are of draft 2020-12. Exit status: 0 good, 1 it cannot be written, 2 usage.");
    schema->callback([&options] { options.m_verb = Options::Verb::SCHEMA; });
}

void AddSelftest(CLI::App& app, Options& options) {
    CLI::App* selftest = app.add_subcommand(
        "selftest", "Show that detection works on this host, without touching any machine");
    selftest->add_flag("--json", options.m_json, "Print the result as JSON");
    AddSetting(*selftest, options, "--modules", "modules", "Folder of the modules");
    selftest->footer(
        "An agent of its own watches a process of its own that does one forbidden "
        "thing of each class. Ports are looked at every ten seconds.\n"
        "Exit status: 0 all alarms came, 1 one did not, 2 usage, 4 a privilege is "
        "missing.");
    selftest->callback([&options] { options.m_verb = Options::Verb::SELFTEST; });
    // What it starts as the machine; its further arguments are those of a machine.
    CLI::App* actor = app.add_subcommand("selftest-actor", "")->group("")->prefix_command();
    actor->callback([&options] { options.m_verb = Options::Verb::SELFTEST_ACTOR; });
}

void AddLearn(CLI::App& app, Options& options) {
    CLI::App* learn = app.add_subcommand(
        "learn", "Watch this host for a time and write the policies that would have been silent");
    learn
        ->add_option_function<std::string>(
            "--for",
            [&options](const std::string& text) {
                const auto duration = ParseDuration(text);
                if (!duration) {
                    throw CLI::ValidationError("--for", std::string("expected ") + DURATION_FORM +
                                                            ", found \"" + text + "\"");
                }
                options.m_for = *duration;
            },
            "How long, at most 365 days: 600 (seconds), 90s, 10m, 24h, 7d")
        ->type_name("DURATION")
        ->required();
    learn->add_option("--into", options.m_into, "Folder for the policies; made when it is missing")
        ->type_name("FOLDER")
        ->required();
    learn->add_option("--config", options.m_config, "Configuration file (/etc/vmescape/agent.json)")
        ->type_name("FILE");
    AddSetting(*learn, options, "--policies", "policies",
               "Folder of the policies whose programs and directories are learned for");
    AddSetting(*learn, options, "--modules", "modules", "Folder of the modules");
    learn->add_flag("--json", options.m_json, "Print the result as JSON");
    learn->footer(
        "What happens meanwhile is allowed by what is learned, so look at it before it is used. "
        "SIGINT and SIGTERM end it early; what was learned until then is written.\n"
        "Exit status: 0 learned, 1 it failed, or something was missed, 2 usage, or FOLDER cannot "
        "be used, 3 learned, but something stays an alarm, 4 a privilege is missing, 6 bad "
        "configuration or policies.");
    learn->callback([&options] { options.m_verb = Options::Verb::LEARN; });
}

void AddVersion(CLI::App& app, Options& options) {
    CLI::App* version = app.add_subcommand("version", "Print the version");
    version->add_flag("--json", options.m_json, "Print it as JSON");
    version->callback([&options] { options.m_verb = Options::Verb::VERSION; });
}

}  // namespace

bool ParseOptions(int argc, const char* const* argv, Options& options, int& exitCode) {
    CLI::App app("Notices when a guest breaks out of its virtual machine", "vmescape-agent");
    app.set_version_flag("--version", std::string("vmescape-agent ") + VMESCAPE_VERSION);
    app.require_subcommand(1);
    AddRun(app, options);
    AddCheck(app, options);
    AddStatus(app, options);
    AddList(app, options);
    AddMetrics(app, options);
    AddSchema(app, options);
    AddSelftest(app, options);
    AddLearn(app, options);
    AddReplay(app, options);
    AddVersion(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        exitCode = app.exit(error, std::cout, std::cerr) == 0 ? EXIT_GOOD : EXIT_USAGE;
        return false;
    }
    return true;
}

}  // namespace Agent
