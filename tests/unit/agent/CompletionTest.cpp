// The completion of the command line in bash.

#include "HelpText.h"
#include "SchemaVerb.h"
#include "support/ChildProcess.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <sstream>
#include <string>

namespace {

using Words = std::set<std::string>;

/// Runs the completion behind a line that ends where it is typed.
/// @param print  what is printed of it
Words Run(const std::string& line, const std::string& folder, const std::string& print) {
    const std::string script =
        "source " SOURCE_FOLDER
        "/packaging/completion.bash; cd \"$2\"; COMP_LINE=$1 COMP_POINT=${#1} told=; "
        "compopt() { told+=\"$2 \"; }; _vmescape_agent; " +
        print;
    const TestSupport::ChildProcess::Result result = TestSupport::ChildProcess::Run(
        {"bash", "-u", "-c", script, "bash", "vmescape-agent " + line, folder});
    EXPECT_EQ(result.m_status, 0);
    EXPECT_EQ(result.m_errors, "");
    std::istringstream lines(result.m_output);
    Words words;
    for (std::string word; std::getline(lines, word);) {
        words.insert(word);
    }
    words.erase("");
    return words;
}

/// What is offered.
Words Complete(const std::string& line, const std::string& folder = "/") {
    return Run(line, folder, "printf '%s\\n' \"${COMPREPLY[@]}\"");
}

/// What bash is told of the words that are offered.
Words Told(const std::string& line) { return Run(line, "/", "printf '%s\\n' $told"); }

/// The outputs that the help of "run" lists, up to where the user's own part begins.
Words OutputsOf(const std::string& help) {
    const std::string key = "  report.output: ";
    const std::size_t begin = help.find('(', help.find(key)) + 1;
    std::istringstream list(help.substr(begin, help.find(" or several", begin) - begin));
    Words outputs;
    for (std::string word; list >> word;) {
        outputs.insert(word.substr(0, word.find_first_not_of("abcdefghijklmnopqrstuvwxyz:")));
    }
    outputs.erase("or");
    return outputs;
}

TEST(Completion, IsKnownToBash) {
    const TestSupport::ChildProcess::Result result = TestSupport::ChildProcess::Run(
        {"bash", "-c",
         "source " SOURCE_FOLDER "/packaging/completion.bash; complete -p vmescape-agent"});
    EXPECT_EQ(result.m_output, "complete -F _vmescape_agent vmescape-agent\n");
}

TEST(Completion, OffersVerbs) {
    Words words = Verbs();
    EXPECT_EQ(words.count("replay"), 1U);
    words.merge(OptionsOf(""));
    EXPECT_EQ(words.count("--version"), 1U);
    EXPECT_EQ(Complete(""), words);
    EXPECT_EQ(Complete("st"), Words{"status"});
}

TEST(Completion, OffersTheOptionsThatEachVerbHas) {
    for (const std::string& verb : Verbs()) {
        const Words options = OptionsOf(verb);
        EXPECT_EQ(options.count("--help"), 1U) << verb;
        EXPECT_EQ(Complete(verb + " -"), options) << verb;
    }
    EXPECT_EQ(Complete("status --so"), Words{"--socket"});
}

TEST(Completion, OffersWhatAnOptionTakes) {
    EXPECT_EQ(Complete("run --format "), (Words{"auto", "text", "json", "ocsf", "ecs"}));
    EXPECT_EQ(Complete("run --log-level w"), Words{"warning"});
    EXPECT_EQ(Complete("metrics --listen u"), Words{"unix:/"});
    const TestSupport::TemporaryFolder folder;
    folder.Write("agent.json", "");
    EXPECT_EQ(Complete("run --config ", folder.Path()), Words{"agent.json"});
    EXPECT_TRUE(Complete("run --policies ", folder.Path()).empty());
}

TEST(Completion, OffersNothingForADurationWhichOnlyTheUserKnows) {
    const TestSupport::TemporaryFolder folder;
    folder.Write("10m", "");
    EXPECT_EQ(Complete("learn --for ", folder.Path()), Words());
    EXPECT_EQ(Complete("learn --for 1", folder.Path()), Words());
}

TEST(Completion, OffersTheNamesOfAllSchemas) {
    Words words = OptionsOf("schema");
    for (const std::string& name : Agent::SchemaNames()) {
        words.insert(name);
    }
    EXPECT_EQ(Complete("schema "), words);
    EXPECT_EQ(Complete("schema al"), Words{"alarm"});
}

TEST(Completion, OffersFilesToReplay) {
    const TestSupport::TemporaryFolder folder;
    folder.Write("day.rec", "");
    EXPECT_EQ(Complete("replay ", folder.Path()), Words{"day.rec"});
}

TEST(Completion, OffersPoliciesToCheckAndNothingElse) {
    const TestSupport::TemporaryFolder folder;
    folder.Write("qemu_cmd_detect_feature.json", "");
    folder.Write("notes.txt", "");
    EXPECT_EQ(Complete("check ", folder.Path()), Words{"qemu_cmd_detect_feature.json"});
}

/// Bash ends a word at a colon, and puts what is offered behind the last one.
TEST(Completion, OffersOutputsPieceByPiece) {
    Words all = OutputsOf(Help("run"));
    EXPECT_EQ(all.count("syslog:tcp:"), 1U);
    EXPECT_EQ(Complete("run --output json:"), all);
    all.insert({"json:", "text:", "ocsf:", "ecs:"});
    EXPECT_EQ(Complete("run --output "), all);
    EXPECT_EQ(Complete("run --output json:syslog:u"), Words{"unix:"});
    const TestSupport::TemporaryFolder folder;
    folder.Write("alarms", "");
    EXPECT_EQ(Complete("run --output text:file:", folder.Path()), Words{"alarms"});
}

TEST(Completion, SaysWhatIsAPathAndWhatIsNot) {
    for (const char* paths :
         {"run --config /e", "run --policies /e", "check /e", "replay /e", "run --output file:/e",
          "run --output json:file:/e", "run --output syslog:unix:/d"}) {
        EXPECT_EQ(Told(paths).count("filenames"), 1U) << paths;
    }
    for (const char* words : {"", "run --", "run --output js", "run --output json:",
                              "run --output json:s", "metrics --listen u", "schema a"}) {
        EXPECT_EQ(Told(words).count("filenames"), 0U) << words;
    }
    EXPECT_EQ(Told("run --output js"), Words{"nospace"});
    EXPECT_EQ(Told("metrics --listen u"), Words{"nospace"});
}

/// To bash such a colon is part of the word, which is replaced from its beginning.
TEST(Completion, TakesAColonWithABackslashForAColon) {
    const TestSupport::TemporaryFolder folder;
    folder.Write("alarms", "");
    EXPECT_EQ(Complete("run --output json\\:stdo"), Words{"json:stdout"});
    EXPECT_EQ(Complete("run --output json\\:syslog:u"), Words{"unix:"});
    EXPECT_EQ(Complete("run --output text:file\\:", folder.Path()), Words{"file:alarms"});
    EXPECT_EQ(Complete("run --output text:file:al", folder.Path()), Words{"alarms"});
}

}  // namespace
