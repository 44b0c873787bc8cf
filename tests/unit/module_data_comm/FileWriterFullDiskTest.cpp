// A file on a full disk: each line is in the files, whole and once, or is counted as lost.

#include "AlarmSink.h"
#include "PutLine.h"
#include "SinkBooks.h"
#include "outputs/FileWriter.h"
#include "support/CapturedLog.h"
#include "support/SmallDisk.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>

namespace {

namespace fs = std::filesystem;

using Engine::AlarmFormatter;
using Engine::AlarmSink;
using Engine::FileWriter;
using TestSupport::ReadText;
using TestSupport::SmallDisk;
using TestSupport::WaitUntil;
using WhenFull = FileWriter::WhenFull;

constexpr int kAlarms = 200;

class FileWriterFullDisk : public testing::Test {
protected:
    void SetUp() override {
        if (const std::string missing = SmallDisk::Missing(); !missing.empty()) {
            ASSERT_EQ(std::getenv("CI"), nullptr) << missing;
            GTEST_SKIP() << missing;
        }
        m_disk.emplace(64);
        m_path = *m_disk / "alarms";
    }

    std::unique_ptr<FileWriter> Open(WhenFull whenFull, std::uint64_t limit = 0) const {
        FileWriter::Options options;
        options.m_limit = limit;
        options.m_whenFull = whenFull;
        return FileWriter::Open(m_path, options);
    }

    std::unique_ptr<AlarmSink> Sink(WhenFull whenFull, std::uint64_t limit = 0) const {
        return std::make_unique<AlarmSink>(
            Open(whenFull, limit), AlarmFormatter(AlarmFormatter::Style::JSON, false), kAlarms);
    }

    /// A document of about a thousand bytes.
    static std::string Document(int number) {
        return "{\"" + std::to_string(number) + std::string(1000, 'x') + "\"}";
    }
    static void OfferAll(AlarmSink& sink) {
        for (int i = 0; i < kAlarms; ++i) {
            EXPECT_TRUE(sink.Offer(Document(i)));
        }
    }

    /// How many documents are in the files. Each is whole, and there once.
    int Count() const {
        std::set<std::string> seen;
        for (const fs::directory_entry& entry :
             fs::directory_iterator(fs::path(m_path).parent_path())) {
            if (entry.path().filename() == "filler") {
                continue;
            }
            std::istringstream lines(ReadText(entry.path().string()));
            for (std::string line; std::getline(lines, line);) {
                EXPECT_EQ(line, Document(std::atoi(line.c_str() + 2)));
                EXPECT_TRUE(seen.insert(line).second) << "twice";
            }
        }
        return static_cast<int>(seen.size());
    }
    bool Holds(int number) const {
        return ReadText(m_path).find(Document(number)) != std::string::npos;
    }

    TestSupport::CapturedLog m_log;
    std::optional<SmallDisk> m_disk;
    std::string m_path;
};

TEST_F(FileWriterFullDisk, DropsAndCountsWhatHasNoRoom) {
    std::ofstream(m_path + ".1") << "";
    const auto sink = Sink(WhenFull::DROP);
    OfferAll(*sink);
    ASSERT_TRUE(WaitUntil([&] { return Written(*sink) + Failed(*sink) == kAlarms; }));
    EXPECT_GT(Written(*sink), 50U);
    EXPECT_GT(Failed(*sink), 100U);
    EXPECT_EQ(Written(*sink), static_cast<std::uint64_t>(Count()));
    EXPECT_EQ(BooksOf(*sink).m_trouble,
              "Output(" + m_path + ") cannot be written: No space left on device");
    EXPECT_TRUE(fs::exists(m_path + ".1")) << "nobody said that it may go";
}

TEST_F(FileWriterFullDisk, WaitsForRoomAndThenLosesNothing) {
    m_disk->Fill();
    const auto sink = Sink(WhenFull::WAIT);
    sink->Offer(Document(0));
    ASSERT_TRUE(WaitUntil([&] { return !BooksOf(*sink).m_trouble.empty(); }));
    sink->Offer(Document(1));
    EXPECT_EQ(BooksOf(*sink).m_waiting, 2U);
    EXPECT_EQ(Count(), 0);
    m_disk->Empty();
    ASSERT_TRUE(WaitUntil([&] { return Written(*sink) == 2; }));
    EXPECT_EQ(Count(), 2);
    EXPECT_TRUE(WaitUntil([&] { return BooksOf(*sink).m_trouble.empty(); }));
    EXPECT_EQ(Failed(*sink), 0U);
}

TEST_F(FileWriterFullDisk, GivesUpWaitingWhenItStopsAndCounts) {
    m_disk->Fill();
    const auto sink = Sink(WhenFull::WAIT);
    OfferAll(*sink);
    sink->Stop();
    EXPECT_EQ(Written(*sink), 0U);
    EXPECT_EQ(BooksOf(*sink).Lost(), static_cast<std::uint64_t>(kAlarms));
    EXPECT_EQ(Count(), 0);
}

TEST_F(FileWriterFullDisk, WaitsForNothingButRoom) {
    const auto writer = Open(WhenFull::WAIT);
    EXPECT_FALSE(writer->ShouldRetry());
    m_disk->Fill();
    EXPECT_EQ(PutLine(*writer, Document(0)), "No space left on device");
    EXPECT_TRUE(writer->ShouldRetry());
    m_disk->Empty();
    EXPECT_EQ(PutLine(*writer, Document(0)), "");
    EXPECT_FALSE(writer->ShouldRetry());
}

TEST_F(FileWriterFullDisk, MakesRoomByRemovingTheOldestRotatedFiles) {
    // Four files of 16 KiB fill the disk.
    const auto sink = Sink(WhenFull::ROTATE, 16 << 10);
    OfferAll(*sink);
    ASSERT_TRUE(WaitUntil([&] { return Written(*sink) + Failed(*sink) == kAlarms; }));
    EXPECT_EQ(Failed(*sink), 0U) << "each had its place for a time";
    EXPECT_TRUE(m_log.Contains(" was removed"));
    EXPECT_GT(Count(), 30);
    EXPECT_TRUE(Holds(kAlarms - 1)) << "the latest is there";
    EXPECT_EQ(BooksOf(*sink).m_trouble, "");
}

TEST_F(FileWriterFullDisk, RemovesRotatedFilesAlsoOfALogRotationThatIsNotItsOwn) {
    const auto writer = Open(WhenFull::ROTATE);
    ASSERT_EQ(PutLine(*writer, Document(0)), "");
    fs::rename(m_path, m_path + ".1");
    ASSERT_EQ(PutLine(*writer, Document(1)), "");
    m_disk->Fill();
    EXPECT_EQ(PutLine(*writer, Document(2)), "");
    EXPECT_EQ(PutLine(*writer, Document(3) + std::string(8192, 'x')), "No space left on device")
        << "there is no other one to remove";
    EXPECT_FALSE(fs::exists(m_path + ".1"));
    EXPECT_EQ(Count(), 2);
    EXPECT_EQ(m_log.Texts(Poco::Message::PRIO_WARNING),
              std::vector<std::string>{"Output file(" + m_path + ") has no space: " + m_path +
                                       ".1 with " + std::to_string(Document(0).size() + 1) +
                                       " bytes of alarms was removed"});
}

}  // namespace
