#include "Agent.h"
#include "Options.h"
#include "PolicyChecker.h"

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

}  // namespace

int main(int argc, char** argv) {
    try {
        Agent::Options options;
        int exitCode = Agent::EXIT_GOOD;
        if (!Agent::ParseOptions(argc, argv, options, exitCode)) {
            return exitCode;
        }
        if (options.m_verb == Agent::Options::Verb::CHECK) {
            return CheckFiles(options.m_files);
        }
        return Agent::Agent(options).Run();
    } catch (const std::exception& exception) {
        std::cerr << "vmescape-agent: " << exception.what() << '\n';
        return Agent::EXIT_FAILED;
    }
}
