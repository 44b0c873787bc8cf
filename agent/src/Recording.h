#pragma once

#include "RecordedEvent.h"
#include "RecordingFile.h"
#include "sdk/Ledger.h"
#include "sdk/Mutex.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Agent {

/// A recording while it is written: gives events their time, and keeps the limit and the books.
///
/// Threads: one at a time; GetLedger on any. Ownership: owns the file, and closes it at the end.
class Recording {
public:
    /// Writes the first line.
    explicit Recording(std::unique_ptr<RecordingFile> file);

    /// Adds events that happened now, all at the same time. After the end they are counted and no
    /// more. What does not fit under the file's limit ends the recording (logged).
    void Add(std::vector<RecordedEvent> events);
    void Add(RecordedEvent event);

    /// Writes what was added. A failure ends the recording (logged), with an end where there is
    /// still room for it.
    void Flush();

    /// Counts events that never got here.
    void CountLost(std::uint64_t events);

    /// Writes what was added and the last line, which names the reason. Harmless after the end.
    void End(const std::string& reason);

    bool Ended() const { return m_file == nullptr; }

    /// Delivered is what was written.
    SDK::Ledger GetLedger() const;

private:
    void Append(const RecordedEvent& event);
    std::string WriteEnd(const std::string& reason);
    void Close(const std::string& trouble);
    std::int64_t Now() const;

    const std::string m_path;
    const std::int64_t m_startedUs;  // since the epoch
    const std::int64_t m_bootUs;     // the same moment, since boot
    std::unique_ptr<RecordingFile> m_file;
    std::string m_lines;  // not written yet
    std::map<std::string, std::uint64_t> m_kinds;

    mutable SDK::Mutex m_mutex;
    SDK::Ledger m_books SDK_GUARDED_BY(m_mutex);
    const SDK::OpenLedger m_openBooks{[this] { return GetLedger(); }};
};

}  // namespace Agent
