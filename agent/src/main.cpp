#include "Agent.h"
#include "CheckVerb.h"
#include "Learn.h"
#include "ListVerb.h"
#include "MetricsVerb.h"
#include "Options.h"
#include "ProgramEnd.h"
#include "ReplayVerb.h"
#include "SchemaVerb.h"
#include "Selftest.h"
#include "SelftestActor.h"
#include "StatusVerb.h"
#include "VersionVerb.h"

#include <iostream>

namespace {

int Obey(const Agent::Options& options, char* const* argv) {
    switch (options.m_verb) {
        case Agent::Options::Verb::RUN:
            return Agent::Agent(options).Run();
        case Agent::Options::Verb::CHECK:
            return Agent::CheckFiles(options);
        case Agent::Options::Verb::VERSION:
            return Agent::PrintVersion(options);
        case Agent::Options::Verb::STATUS:
            return Agent::PrintStatus(options);
        case Agent::Options::Verb::LIST:
            return Agent::PrintList(options);
        case Agent::Options::Verb::METRICS:
            return Agent::ExportMetrics(options);
        case Agent::Options::Verb::SCHEMA:
            return Agent::PrintSchema(options);
        case Agent::Options::Verb::REPLAY:
            return Agent::BecomePlayer(argv);
        case Agent::Options::Verb::SELFTEST:
            return Agent::Selftest(options).Run();
        case Agent::Options::Verb::SELFTEST_ACTOR:
            return Agent::SelftestActor::Run(std::cin, std::cout);
        case Agent::Options::Verb::LEARN:
            return Agent::Learn(options).Run();
    }
    return Agent::EXIT_USAGE;
}

}  // namespace

int main(int argc, char** argv) {
    return Agent::ExitStatusOf([argc, argv]() -> int {
        Agent::Options options;
        int exitCode = Agent::EXIT_GOOD;
        return Agent::ParseOptions(argc, argv, options, exitCode) ? Obey(options, argv) : exitCode;
    });
}
