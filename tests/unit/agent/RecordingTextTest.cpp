#include "RecordingText.h"

#include <gtest/gtest.h>

#include <random>

namespace {

using Agent::RecordedEvent;
using Agent::RecordingHeader;
using Kind = RecordedEvent::Kind;
using Text = Agent::RecordingText;

RecordedEvent Make(Kind kind) {
    RecordedEvent event;
    event.m_kind = kind;
    event.m_at = 1763711564123456;
    return event;
}

RecordedEvent MakeExec(const std::string& bytes) {
    RecordedEvent event = Make(Kind::EXEC);
    event.m_process.m_pid = 12;
    event.m_process.m_ppid = 7;
    event.m_process.m_name = bytes;
    event.m_process.m_exePath = bytes;
    event.m_process.m_cmdline = bytes;
    event.m_process.m_parentName = bytes;
    event.m_process.m_startTime = 1234567890123456789;
    return event;
}

/// The event as it comes back.
RecordedEvent Return(const RecordedEvent& event) {
    const std::string line = Text::Write(event);
    EXPECT_EQ(line.find('\n'), std::string::npos);
    RecordedEvent read = Make(Kind::END);
    EXPECT_EQ(Text::Read(line, read), "") << line;
    EXPECT_EQ(read.m_kind, event.m_kind);
    EXPECT_EQ(read.m_at, event.m_at);
    return read;
}

std::string Wrong(const std::string& line) {
    RecordedEvent event;
    return Text::Read(line, event);
}

void ExpectBytesSurvive(const std::string& bytes) {
    const RecordedEvent read = Return(MakeExec(bytes));
    EXPECT_EQ(read.m_process.m_name, bytes);
    EXPECT_EQ(read.m_process.m_exePath, bytes);
    EXPECT_EQ(read.m_process.m_cmdline, bytes);
    EXPECT_EQ(read.m_process.m_parentName, bytes);
    if (!bytes.empty()) {
        RecordedEvent file = Make(Kind::FILE);
        file.m_path = bytes;
        EXPECT_EQ(Return(file).m_path, bytes);
    }
}

TEST(RecordingText, KeepsEverythingOfAProcess) {
    for (const Kind kind : {Kind::FORK, Kind::EXEC, Kind::SNAPSHOT}) {
        RecordedEvent event = MakeExec("sh");
        event.m_kind = kind;
        event.m_process.m_exePath = "/usr/bin/dash";
        event.m_process.m_cmdline = "sh -c id";
        event.m_process.m_parentName = "qemu";
        event.m_left = 5;
        const RecordedEvent read = Return(event);
        EXPECT_EQ(read.m_process.m_pid, 12);
        EXPECT_EQ(read.m_process.m_ppid, 7);
        EXPECT_EQ(read.m_process.m_name, "sh");
        EXPECT_EQ(read.m_process.m_exePath, "/usr/bin/dash");
        EXPECT_EQ(read.m_process.m_cmdline, "sh -c id");
        EXPECT_EQ(read.m_process.m_parentName, "qemu");
        EXPECT_EQ(read.m_process.m_startTime, 1234567890123456789U);
        EXPECT_EQ(read.m_left, kind == Kind::SNAPSHOT ? 5U : 0U);
    }
}

TEST(RecordingText, KeepsEverythingOfTheOtherEvents) {
    RecordedEvent exit = Make(Kind::EXIT);
    exit.m_process.m_pid = 99;
    EXPECT_EQ(Return(exit).m_process.m_pid, 99);

    RecordedEvent file = Make(Kind::FILE);
    file.m_process.m_pid = 12;
    file.m_mask = 0x20;
    file.m_path = "/etc/shadow";
    file.m_regular = false;
    EXPECT_EQ(Return(file).m_process.m_pid, 12);
    EXPECT_EQ(Return(file).m_mask, 0x20);
    EXPECT_EQ(Return(file).m_path, "/etc/shadow");
    EXPECT_FALSE(Return(file).m_regular);

    RecordedEvent watch = Make(Kind::WATCH);
    watch.m_path = "/link";
    watch.m_realPath = "/real";
    EXPECT_EQ(Return(watch).m_path, "/link");
    EXPECT_EQ(Return(watch).m_realPath, "/real");
    watch.m_kind = Kind::UNWATCH;
    EXPECT_EQ(Return(watch).m_path, "/link");

    RecordedEvent gap = Make(Kind::GAP);
    gap.m_lost = 40;
    gap.m_reason = "behind";
    EXPECT_EQ(Return(gap).m_lost, 40U);
    EXPECT_EQ(Return(gap).m_reason, "behind");
    gap.m_kind = Kind::END;
    EXPECT_EQ(Return(gap).m_reason, "behind");
}

TEST(RecordingText, KeepsSocketsWithTheirHoldersAndGivesEachRecordsOfItsOwn) {
    RecordedEvent event = Make(Kind::SOCKETS);
    auto holder = std::make_shared<Engine::ProcsMessage::procInfo>(MakeExec("qemu").m_process);
    for (const long inode : {4000L, 4001L}) {
        auto socket = std::make_shared<Engine::NetProcsMessage::netProcInfo>();
        socket->m_port = static_cast<int>(inode);
        socket->m_protocol = 17;
        socket->m_processes.emplace(12, holder);
        event.m_opened.emplace(inode, socket);
    }
    event.m_closed = {7, 8};
    const RecordedEvent read = Return(event);
    EXPECT_EQ(read.m_closed, (std::vector<long>{7, 8}));
    ASSERT_EQ(read.m_opened.size(), 2U);
    const auto& first = *read.m_opened.at(4000);
    const auto& second = *read.m_opened.at(4001);
    EXPECT_EQ(first.m_port, 4000);
    EXPECT_EQ(second.m_port, 4001);
    EXPECT_EQ(first.m_protocol, 17);
    ASSERT_EQ(first.m_processes.count(12), 1U);
    EXPECT_EQ(first.m_processes.at(12)->m_name, "qemu");
    EXPECT_EQ(first.m_processes.at(12)->m_ppid, 7);
    EXPECT_NE(first.m_processes.at(12), second.m_processes.at(12));
}

TEST(RecordingText, WritesAHolderOfManySocketsOnce) {
    RecordedEvent event = Make(Kind::SOCKETS);
    for (long inode = 0; inode < 50; ++inode) {
        auto socket = std::make_shared<Engine::NetProcsMessage::netProcInfo>();
        socket->m_processes.emplace(
            12, std::make_shared<Engine::ProcsMessage::procInfo>(MakeExec("once").m_process));
        event.m_opened.emplace(inode, socket);
    }
    const std::string line = Text::Write(event);
    EXPECT_EQ(line.find("\"name\":\"once\""), line.rfind("\"name\":\"once\""));
}

TEST(RecordingText, KeepsBytesOfAnyKind) {
    std::string all;
    for (int byte = 0; byte < 256; ++byte) {
        ExpectBytesSurvive(std::string(1, static_cast<char>(byte)));
        all += static_cast<char>(byte);
    }
    for (const std::string& bytes :
         {all, std::string(), std::string(4096, '\xff'), std::string("a\0b", 3),
          std::string("\xc3\xa9\xe4\xbd\xa0\xf0\x9f\x90\xa7"), std::string("\xed\xa0\x80"),
          std::string("\xc0\xaf"), std::string("\xf4\x90\x80\x80"), std::string("\xef\xbf\xbd"),
          std::string("\\u0041\"\n\x7f\x1b[0m")}) {
        ExpectBytesSurvive(bytes);
    }
}

TEST(RecordingText, KeepsRandomBytes) {
    std::mt19937 random(1);
    for (int i = 0; i < 2000; ++i) {
        std::string bytes(random() % 40, ' ');
        for (char& byte : bytes) {
            byte = static_cast<char>(random());
        }
        ExpectBytesSurvive(bytes);
    }
}

TEST(RecordingText, WritesBytesThatAreTextAsText) {
    EXPECT_NE(Text::Write(MakeExec("sh -c id")).find("\"cmdline\":\"sh -c id\""),
              std::string::npos);
    EXPECT_NE(Text::Write(MakeExec("\xff")).find("\"cmdline_b64\":\"/w==\""), std::string::npos);
}

TEST(RecordingText, KeepsAHeader) {
    RecordingHeader header;
    header.m_host = "kvm-07";
    header.m_agent = "0.1.0";
    header.m_started = "2026-11-21T09:12:44Z";
    header.m_shells = "/bin/sh\n\xff";
    header.m_hasShells = true;
    RecordingHeader read;
    EXPECT_EQ(Text::Read(Text::Write(header), read), "");
    EXPECT_EQ(read.m_host, "kvm-07");
    EXPECT_EQ(read.m_agent, "0.1.0");
    EXPECT_EQ(read.m_started, "2026-11-21T09:12:44Z");
    EXPECT_EQ(read.m_shells, "/bin/sh\n\xff");
    EXPECT_TRUE(read.m_hasShells);
    header.m_hasShells = false;
    EXPECT_EQ(Text::Read(Text::Write(header), read), "");
    EXPECT_FALSE(read.m_hasShells);
}

TEST(RecordingText, RefusesTheHeaderOfSomethingElse) {
    RecordingHeader header;
    EXPECT_EQ(Text::Read("{}", header), "/recording: expected \"vmescape\", found nothing");
    EXPECT_EQ(Text::Read(R"({"recording":"vmescape","version":2})", header),
              "/version: expected 1, found 2");
    EXPECT_EQ(Text::Read("[]", header), "expected an object, found an empty list");
    EXPECT_EQ(Text::Read("", header).rfind("expected JSON: ", 0), 0U);
    EXPECT_EQ(Text::Read(std::string("\x7f") + "ELF\xff", header),
              "expected text in UTF-8, found another byte at offset 4");
}

TEST(RecordingText, NeedsLittleOfALineThatSomebodyWrites) {
    RecordedEvent event;
    EXPECT_EQ(Text::Read(R"({"at":5,"event":"exec","process":{"pid":2,"ppid":1}})", event), "");
    EXPECT_EQ(event.m_process.m_pid, 2);
    EXPECT_EQ(Text::Read(R"({"at":5,"event":"file","pid":2,"mask":1,"path":"/x"})", event), "");
    EXPECT_TRUE(event.m_regular);
    EXPECT_EQ(Text::Read(R"({"at":5,"event":"sockets","note":"unknown keys stay"})", event), "");
}

TEST(RecordingText, TellsWhatIsWrongWithALineAndWhere) {
    EXPECT_EQ(Wrong("{"), "expected JSON: * Line 1, Column 2   Missing '}' or object member name");
    EXPECT_EQ(Wrong("3"), "expected an object, found 3");
    EXPECT_EQ(Wrong(R"({"event":"end"})"),
              "/at: expected a whole number from 0 to 9007199254740991, found nothing");
    EXPECT_EQ(Wrong(R"({"at":-1,"event":"end"})"),
              "/at: expected a whole number from 0 to 9007199254740991, found -1");
    EXPECT_EQ(Wrong(R"({"at":1.5,"event":"end"})"),
              "/at: expected a whole number from 0 to 9007199254740991, found a number");
    EXPECT_EQ(Wrong(R"({"at":1,"event":"dance"})"),
              "/event: expected one of snapshot, fork, exec, exit, file, sockets, watch, unwatch, "
              "gap, end, found a string");
    EXPECT_EQ(Wrong(R"({"at":1,"event":"exec"})"), "/process: expected an object, found nothing");
    EXPECT_EQ(Wrong(R"({"at":1,"event":"exec","process":{"pid":"2"}})"),
              "/process/pid: expected a whole number from 0 to 2147483647, found a string");
    EXPECT_EQ(Wrong(R"({"at":1,"event":"exec","process":{"pid":2,"ppid":1,"name":4}})"),
              "/process/name: expected a string, found 4");
    EXPECT_EQ(Wrong(R"({"at":1,"event":"exec","process":{"pid":2,"ppid":1,"name_b64":"%"}})"),
              "/process/name_b64: expected a string in Base64, found a string");
    EXPECT_EQ(Wrong(R"({"at":1,"event":"file","pid":2,"mask":1})"),
              "/path: expected a string, found nothing");
    EXPECT_EQ(Wrong(R"({"at":1,"event":"file","pid":2,"mask":1,"path":"/x","regular":1})"),
              "/regular: expected a boolean, found 1");
    EXPECT_EQ(Wrong(R"({"at":1,"event":"sockets","opened":3})"),
              "/opened: expected a list, found 3");
    EXPECT_EQ(Wrong(R"({"at":1,"event":"sockets","opened":[{"port":65536}]})"),
              "/opened/0/port: expected a whole number from 0 to 65535, found 65536");
    EXPECT_EQ(
        Wrong(
            R"({"at":1,"event":"sockets","opened":[{"port":1,"protocol":6,"inode":1,"holders":[5]}]})"),
        "/opened/0/holders: expected pids of \"processes\", found 5");
    EXPECT_EQ(Wrong(R"({"at":1,"event":"sockets","closed":["x"]})"),
              "/closed: expected inode numbers, found a string");
}

}  // namespace
