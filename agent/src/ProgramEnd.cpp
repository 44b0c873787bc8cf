#include "ProgramEnd.h"

#include "ExitCode.h"
#include "sdk/StrUtils.h"

#include <Poco/Exception.h>

#include <exception>
#include <iostream>
#include <string>

namespace Agent {

namespace {

int Fail(const std::string& why) {
    std::cerr << "vmescape-agent: " << SDK::StrUtils::EscapeForTerminal(why) << '\n';
    return EXIT_FAILED;
}

}  // namespace

int ExitStatusOf(const std::function<int()>& work) {
    try {
        const int status = work();
        // What was written before and failed is remembered; what is held back is tried now.
        std::cout.flush();
        return std::cout ? status : Fail("the result cannot be written to standard output");
    } catch (const Poco::Exception& exception) {
        // Its what() only names its kind.
        return Fail(exception.displayText());
    } catch (const std::exception& exception) {
        return Fail(exception.what());
    }
}

}  // namespace Agent
