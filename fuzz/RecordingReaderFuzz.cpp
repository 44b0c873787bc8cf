// A recording of any kind is read or refused with its line, and what is read can be written and
// read again without a change.

#include "FuzzInput.h"
#include "RecordedProcesses.h"
#include "RecordingReader.h"
#include "RecordingText.h"
#include "SocketChanges.h"

#include <sys/mman.h>
#include <unistd.h>

namespace {

using Agent::RecordedEvent;
using Agent::RecordingText;
using Replay::RecordingReader;

// With them most of the input is read.
constexpr const char* kBeginning =
    "{\"recording\":\"vmescape\",\"version\":1}\n"
    "{\"at\":1,\"event\":\"snapshot\",\"left\":0,\"process\":{\"pid\":1,\"ppid\":0}}\n";

/// A file in memory.
class MemoryFile {
public:
    explicit MemoryFile(const std::string& text)
        : m_file(::memfd_create("recording", MFD_CLOEXEC)) {
        Require(m_file >= 0 &&
                ::write(m_file, text.data(), text.size()) == static_cast<ssize_t>(text.size()));
    }
    ~MemoryFile() { ::close(m_file); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    std::string Path() const { return "/proc/self/fd/" + std::to_string(m_file); }

private:
    const int m_file;
};

void CheckRoundTrip(const RecordedEvent& event) {
    const std::string line = RecordingText::Write(event);
    RecordedEvent read;
    Require(line.find('\n') == std::string::npos);
    Require(RecordingText::Read(line, read).empty());
    Require(RecordingText::Write(read) == line);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzInput input(data, size);
    const bool whole = input.Byte() % 2 == 0;
    const MemoryFile file((whole ? "" : kBeginning) + input.Rest());
    RecordingReader reader;
    Agent::RecordingHeader header;
    RecordedEvent event;
    Replay::RecordedProcesses processes;
    Agent::SocketMap sockets;
    std::int64_t last = 0;
    RecordingReader::Result result = reader.Open(file.Path(), header);
    while (result == RecordingReader::Result::EVENT) {
        result = reader.Next(event);
        if (result != RecordingReader::Result::EVENT) {
            break;
        }
        Require(event.m_at >= last);
        last = event.m_at;
        CheckRoundTrip(event);
        processes.Put(event.m_process);
        processes.End(event.m_process.m_pid / 2, event.m_at);
        Agent::SocketChanges::Apply(event, sockets);
    }
    Require(reader.Problem().empty() == (result == RecordingReader::Result::ENDED));
    Require(reader.Problem().find('\n') == std::string::npos);
    return 0;
}
