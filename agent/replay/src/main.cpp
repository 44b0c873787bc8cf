// vmescape-replay: what "vmescape-agent replay" becomes. A program of its own because functions of
// the C library are replaced in it (ReplacedFunctions.cpp), which must not be in an agent that
// watches a host.

#include "Options.h"
#include "Player.h"
#include "ProgramEnd.h"

#include <iostream>

namespace {

int Play(int argc, char** argv) {
    Agent::Options options;
    int exitCode = Agent::EXIT_GOOD;
    if (!Agent::ParseOptions(argc, argv, options, exitCode)) {
        return exitCode;
    }
    if (options.m_verb != Agent::Options::Verb::REPLAY) {
        std::cerr << "vmescape-replay: is started by \"vmescape-agent replay\" only\n";
        return Agent::EXIT_USAGE;
    }
    const int status = Replay::Player(options).Run();
    // The summary goes there. There is nowhere left to tell that it did not arrive.
    return status == Agent::EXIT_GOOD && !std::cerr ? Agent::EXIT_FAILED : status;
}

}  // namespace

int main(int argc, char** argv) {
    return Agent::ExitStatusOf([argc, argv] { return Play(argc, argv); });
}
