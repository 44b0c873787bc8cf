#include "RecordedFiles.h"

#include <gtest/gtest.h>

namespace {

TEST(RecordedFiles, AnswerForWhatWasRecordedAndNothingElse) {
    EXPECT_EQ(Replay::RecordedFiles::Current(), nullptr);
    {
        Replay::RecordedFiles files;
        EXPECT_EQ(Replay::RecordedFiles::Current(), &files);
        std::string text;
        bool regular = false;
        EXPECT_FALSE(files.FindText("", text));
        EXPECT_FALSE(files.FindRegular("", regular));
        files.SetText("/etc/shells", "/bin/sh\n");
        EXPECT_TRUE(files.FindText("/etc/shells", text));
        EXPECT_EQ(text, "/bin/sh\n");
        EXPECT_FALSE(files.FindText("/etc/passwd", text));
        files.SetRegular("/a", true);
        EXPECT_TRUE(files.FindRegular("/a", regular));
        EXPECT_TRUE(regular);
        files.SetRegular("/b", false);
        EXPECT_TRUE(files.FindRegular("/b", regular));
        EXPECT_FALSE(regular);
        EXPECT_FALSE(files.FindRegular("/a", regular)) << "that one is over";
    }
    EXPECT_EQ(Replay::RecordedFiles::Current(), nullptr);
}

}  // namespace
