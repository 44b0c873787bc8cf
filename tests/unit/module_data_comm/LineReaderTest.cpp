#include "LineReader.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <vector>

namespace {

using Engine::LineReader;
using Texts = std::vector<std::string>;

Texts All(LineReader& reader) {
    Texts lines;
    for (std::string line; reader.Next(line);) {
        lines.push_back(line);
    }
    return lines;
}

class LineReaderTest : public testing::Test {
protected:
    TestSupport::TemporaryFolder m_folder;
};

TEST_F(LineReaderTest, GivesWholeLinesAndTellsHowMuchLiesBehindTheLast) {
    LineReader reader(m_folder.Write("file", "one\n\nthree\nfou"), 0);
    EXPECT_EQ(All(reader), (Texts{"one", "", "three"}));
    EXPECT_EQ(reader.Error(), 0);
    EXPECT_EQ(reader.Offset(), 11U);
    EXPECT_EQ(reader.Rest(), 3U);
}

TEST_F(LineReaderTest, BeginsWhereItIsTold) {
    const std::string path = m_folder.Write("file", "one\ntwo\n");
    LineReader reader(path, 4);
    EXPECT_EQ(All(reader), Texts{"two"});
    EXPECT_EQ(reader.Offset(), 8U);
    EXPECT_EQ(reader.Rest(), 0U);
    LineReader behind(path, 100);
    EXPECT_EQ(All(behind), Texts{});
    EXPECT_EQ(behind.Error(), 0);
}

TEST_F(LineReaderTest, ReadsLinesOfAnyLength) {
    Texts lines;
    std::string text;
    for (const std::size_t size : {1U, 65535U, 65536U, 3U, 65537U, 300000U, 0U, 5U}) {
        lines.emplace_back(size, static_cast<char>('a' + lines.size()));
        text += lines.back() + '\n';
    }
    LineReader reader(m_folder.Write("file", text), 0);
    EXPECT_EQ(All(reader), lines);
    EXPECT_EQ(reader.Offset(), text.size());
}

TEST_F(LineReaderTest, TellsAFileThatIsGoneFromOneThatCannotBeRead) {
    LineReader gone(m_folder / "gone", 0);
    EXPECT_EQ(All(gone), Texts{});
    EXPECT_EQ(gone.Error(), ENOENT);
    std::filesystem::create_directory(m_folder / "directory");
    LineReader directory(m_folder / "directory", 0);
    EXPECT_EQ(All(directory), Texts{});
    EXPECT_EQ(directory.Error(), EISDIR);
    std::filesystem::create_symlink("file", m_folder / "link");
    EXPECT_EQ(LineReader(m_folder / "link", 0).Error(), ELOOP);
}

}  // namespace
