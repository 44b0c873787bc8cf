#include "Agent.h"
#include "MetricsVerb.h"
#include "Options.h"
#include "PolicyChecker.h"
#include "Selftest.h"
#include "SelftestActor.h"
#include "StatusVerb.h"

#include <exception>
#include <iostream>

namespace {

int CheckFiles(const std::vector<std::string>& files) {
    bool good = true;
    for (const std::string& file : files) {
        const std::vector<Agent::Problem> problems = Agent::PolicyChecker::CheckFile(file);
        for (const Agent::Problem& problem : problems) {
            std::cerr << Agent::ToText(problem) << '\n';
        }
        const bool fileGood = !Agent::HasErrors(problems);
        if (fileGood) {
            std::cout << file << ": good\n";
        }
        good = good && fileGood;
    }
    return good ? Agent::EXIT_GOOD : Agent::EXIT_BAD_INPUT;
}

int Obey(const Agent::Options& options) {
    switch (options.m_verb) {
        case Agent::Options::Verb::RUN:
            return Agent::Agent(options).Run();
        case Agent::Options::Verb::CHECK:
            return CheckFiles(options.m_files);
        case Agent::Options::Verb::STATUS:
            return Agent::PrintStatus(options);
        case Agent::Options::Verb::METRICS:
            return Agent::ExportMetrics(options);
        case Agent::Options::Verb::SELFTEST:
            return Agent::Selftest(options).Run();
        case Agent::Options::Verb::SELFTEST_ACTOR:
            return Agent::SelftestActor::Run(std::cin, std::cout);
    }
    return Agent::EXIT_USAGE;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        Agent::Options options;
        int exitCode = Agent::EXIT_GOOD;
        if (!Agent::ParseOptions(argc, argv, options, exitCode)) {
            return exitCode;
        }
        return Obey(options);
    } catch (const std::exception& exception) {
        std::cerr << "vmescape-agent: " << exception.what() << '\n';
        return Agent::EXIT_FAILED;
    }
}
