// The man page of the agent, beside what the agent says of itself.

#include "HelpText.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <sstream>
#include <string>

namespace {

/// The page without what only changes its looks.
std::string ReadPage() {
    const std::string page = TestSupport::ReadText(SOURCE_FOLDER "/packaging/vmescape-agent.8");
    return std::regex_replace(page, std::regex(R"(\\f[BIR]|\\(?=-))"), "");
}

std::string SectionOf(const std::string& page, const std::string& name) {
    const std::size_t begin = page.find("\n.SH " + name + '\n');
    if (begin == std::string::npos) {
        ADD_FAILURE() << name << " is no section";
        return "";
    }
    return page.substr(begin, page.find("\n.SH ", begin + 1) - begin) + '\n';
}

/// How a verb is called, as the synopsis has it.
std::string SynopsisOf(const std::string& page, const std::string& verb) {
    const std::string synopsis = SectionOf(page, "SYNOPSIS");
    const std::size_t begin = synopsis.find("\n.B vmescape-agent " + verb + '\n');
    return begin == std::string::npos
               ? ""
               : synopsis.substr(begin, synopsis.find("\n.br", begin) - begin) + '\n';
}

TEST(ManPage, HasEveryVerbWithEachOfItsOptions) {
    const std::string page = ReadPage();
    const std::set<std::string> verbs = Verbs();
    EXPECT_GE(verbs.size(), 10U);
    for (const std::string& verb : verbs) {
        const std::string synopsis = SynopsisOf(page, verb);
        EXPECT_NE(synopsis, "") << verb << " is not in the synopsis";
        for (const std::string& option : OptionsOf(verb)) {
            EXPECT_TRUE(option == "--help" ||
                        std::regex_search(synopsis, std::regex("[\\[ \n]" + option + "[\\] \n]")))
                << verb << ' ' << option << " is not in the synopsis";
        }
    }
}

TEST(ManPage, TellsWhatEveryVerbDoes) {
    const std::string description = SectionOf(ReadPage(), "DESCRIPTION");
    for (const std::string& verb : Verbs()) {
        EXPECT_NE(description.find("\n.B " + verb + '\n'), std::string::npos) << verb;
    }
}

TEST(ManPage, TellsWhatEveryOptionMeansAndHasNoOther) {
    std::set<std::string> options = OptionsOf("");
    for (const std::string& verb : Verbs()) {
        options.merge(OptionsOf(verb));
    }
    const std::string section = SectionOf(ReadPage(), "OPTIONS");
    std::set<std::string> told;
    const std::regex heading("\n[.]TP\n(-[-a-z]+)");
    for (std::sregex_iterator found(section.begin(), section.end(), heading), end; found != end;
         ++found) {
        told.insert((*found)[1].str());
    }
    EXPECT_EQ(told, options);
}

TEST(ManPage, HasTheExitStatusesOfTheDocument) {
    std::map<std::string, std::string> documented;
    std::istringstream lines(TestSupport::ReadText(SOURCE_FOLDER "/docs/agent.md"));
    const std::regex row(R"(\| ([0-9]) \| (.*) \|)");
    for (std::string line; std::getline(lines, line);) {
        std::smatch found;
        if (std::regex_match(line, found, row)) {
            documented[found[1]] = std::regex_replace(found[2].str(), std::regex("`"), "");
        }
    }
    EXPECT_GE(documented.size(), 6U);
    const std::string section = SectionOf(ReadPage(), "EXIT STATUS");
    std::map<std::string, std::string> told;
    const std::regex entry("\n[.]TP\n[.]B ([0-9])\n([^.][^]*?)(?=\n[.]TP|\n$)");
    for (std::sregex_iterator found(section.begin(), section.end(), entry), end; found != end;
         ++found) {
        told[(*found)[1]] = std::regex_replace((*found)[2].str(), std::regex("\n"), " ");
    }
    EXPECT_EQ(told, documented);
}

}  // namespace
