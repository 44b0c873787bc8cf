#include "ProcessImage.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace ProcessCollect;

// Arguments as the kernel keeps them.
std::string Arguments(std::initializer_list<std::string> arguments) {
    std::string text;
    for (const std::string& argument : arguments) {
        text += argument + '\0';
    }
    return text;
}

TEST(ProcessImage, ShortNameIsNeverCompleted) {
    EXPECT_EQ(CompleteName("sh", "/bin/shell", "sh-long"), "sh");
    EXPECT_EQ(CompleteName("fourteen-bytes", "/bin/fourteen-bytes-and-more", ""), "fourteen-bytes");
}

TEST(ProcessImage, NameOf15BytesIsCompletedFromTheExecutable) {
    EXPECT_EQ(CompleteName("qemu-system-x86", "/usr/bin/qemu-system-x86_64", "qemu-system-x86_32"),
              "qemu-system-x86_64");
}

TEST(ProcessImage, NameOf15BytesIsCompletedFromTheFirstArgumentOtherwise) {
    EXPECT_EQ(CompleteName("qemu-system-x86", "/usr/bin/other", "/opt/qemu-system-x86_64"),
              "qemu-system-x86_64");
}

TEST(ProcessImage, NameThatNothingCompletesStaysCut) {
    EXPECT_EQ(CompleteName("a-very-long-scr", "/bin/dash", "/bin/sh"), "a-very-long-scr");
    EXPECT_EQ(CompleteName("exactly-fifteen", "/bin/exactly-fifteen", ""), "exactly-fifteen");
}

TEST(ProcessImage, DirectoryOfThatNameCompletesNothing) {
    EXPECT_EQ(CompleteName("qemu-system-x86", "/qemu-system-x86_64/run", ""), "qemu-system-x86");
}

TEST(ProcessImage, ArgumentsAreJoinedBySingleBlanks) {
    EXPECT_EQ(JoinArguments(Arguments({"/bin/sh", "-c", "id"})), "/bin/sh -c id");
    EXPECT_EQ(JoinArguments(Arguments({"a", "", "b"})), "a  b");
}

TEST(ProcessImage, CommandLineHasNoTrailingBlank) {
    EXPECT_EQ(JoinArguments(Arguments({"a", "b ", "", ""})), "a b");
    EXPECT_EQ(JoinArguments(Arguments({"", ""})), "");
    EXPECT_EQ(JoinArguments(""), "");
}

TEST(ProcessImage, CommandLineEndsAt4096Bytes) {
    EXPECT_EQ(JoinArguments(std::string(4096, 'x')).size(), 4096U);
    EXPECT_EQ(JoinArguments(std::string(4097, 'x')).size(), 4096U);
    EXPECT_EQ(JoinArguments(std::string(4095, 'x') + " y").size(), 4095U);
}

TEST(ProcessImage, MarkOfADeletedFileIsRemovedOnce) {
    EXPECT_EQ(StripDeleted("/bin/a (deleted)"), "/bin/a");
    EXPECT_EQ(StripDeleted("/bin/a (deleted) (deleted)"), "/bin/a (deleted)");
    EXPECT_EQ(StripDeleted("/bin/a"), "/bin/a");
    EXPECT_EQ(StripDeleted(" (deleted)"), " (deleted)");
}

TEST(ProcessImage, ImageAtExecBelievesTheKernelsName) {
    const auto image = MakeImageAtExec("script", "/bin/dash (deleted)",
                                       Arguments({"/bin/sh", "/tmp/script", "x"}), RunMarks{1, 2});
    EXPECT_EQ(image->m_name, "script");
    EXPECT_EQ(image->m_exePath, "/bin/dash");
    EXPECT_EQ(image->m_cmdline, "/bin/sh /tmp/script x");
    EXPECT_EQ(image->m_marks.m_stackStart, 1U);
    EXPECT_EQ(image->m_marks.m_argumentStart, 2U);
}

TEST(ProcessImage, RenamedProcessGetsItsExecutablesNameBack) {
    const auto image = MakeImageLater("sshd", "/usr/bin/qemu-system-x86_64",
                                      Arguments({"qemu-system-x86_64", "-S"}), RunMarks());
    EXPECT_EQ(image->m_name, "qemu-system-x86_64");
}

TEST(ProcessImage, NameThatALinkOrAScriptExplainsIsBelievedLater) {
    EXPECT_EQ(MakeImageLater("kvm", "/usr/bin/qemu-system-x86_64", Arguments({"/usr/bin/kvm"}),
                             RunMarks())
                  ->m_name,
              "kvm");
    EXPECT_EQ(MakeImageLater("backup.sh", "/usr/bin/dash", Arguments({"/bin/sh", "/opt/backup.sh"}),
                             RunMarks())
                  ->m_name,
              "backup.sh");
    EXPECT_EQ(
        MakeImageLater("qemu-system-x86", "/usr/bin/qemu-system-x86_64", "", RunMarks())->m_name,
        "qemu-system-x86_64");
}

TEST(ProcessImage, KernelThreadKeepsItsName) {
    EXPECT_EQ(MakeImageLater("kworker/0:1", "", "", RunMarks())->m_name, "kworker/0:1");
}

TEST(ProcessImage, OneMarkThatMatchesIsTheSameRun) {
    EXPECT_TRUE((RunMarks{1, 2}).Matches(RunMarks{1, 3}));
    EXPECT_TRUE((RunMarks{1, 2}).Matches(RunMarks{4, 2}));
    EXPECT_FALSE((RunMarks{1, 2}).Matches(RunMarks{2, 1}));
    EXPECT_FALSE((RunMarks{1, 0}).Known());
    EXPECT_FALSE((RunMarks{0, 1}).Known());
}

}  // namespace
