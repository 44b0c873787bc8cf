// vmescape-replay: what "vmescape-agent replay" becomes. A program of its own because functions of
// the C library are replaced in it (ReplacedFunctions.cpp), which must not be in an agent that
// watches a host.

#include "Options.h"
#include "Player.h"

#include <exception>
#include <iostream>

int main(int argc, char** argv) {
    try {
        Agent::Options options;
        int exitCode = Agent::EXIT_GOOD;
        if (!Agent::ParseOptions(argc, argv, options, exitCode)) {
            return exitCode;
        }
        if (options.m_verb != Agent::Options::Verb::REPLAY) {
            std::cerr << "vmescape-replay: is started by \"vmescape-agent replay\" only\n";
            return Agent::EXIT_USAGE;
        }
        return Replay::Player(options).Run();
    } catch (const std::exception& exception) {
        std::cerr << "vmescape-agent: " << exception.what() << '\n';
        return Agent::EXIT_FAILED;
    }
}
