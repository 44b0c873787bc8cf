#pragma once

#include "sdk/UniqueDescriptor.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Engine {

/// Alarms that wait on disk for an output that is away, first in, first out. They outlive the
/// agent: the next one that opens the spool goes on where this one was.
///
/// In the folder lie the segments NAME.<number>.jsonl, one document a line, of which the oldest is
/// removed when all of it has arrived, and NAME.position, which says how much of the oldest has.
/// What is appended is on the disk when Append returns. An agent that is killed between the arrival
/// of alarms and the note of it sends these again.
///
/// Threads: one at a time.
class AlarmSpool {
public:
    /// Opens the spool of an output; the folder is made when it is missing, for its owner alone.
    /// @param limit  bytes that the segments may have together
    /// @param why    set when it cannot be opened, or another agent has it open
    /// @return null when it cannot be had
    static std::unique_ptr<AlarmSpool> Open(const std::string& folder, const std::string& name,
                                            std::uint64_t limit, std::string& why);

    /// The segments with alarms in a folder that belong to no spool which any agent has open, by
    /// the names of their spools, oldest first.
    /// @param why  set when the folder is there, but cannot be read to its end
    static std::map<std::string, std::vector<std::string>> FindForgotten(const std::string& folder,
                                                                         std::string& why);

    AlarmSpool(const AlarmSpool&) = delete;
    AlarmSpool& operator=(const AlarmSpool&) = delete;

    /// Appends documents, without line ends in them, until the limit.
    /// @param why  set when not all were taken
    /// @return how many were, from the first on
    std::size_t Append(const std::deque<std::string>& documents, std::string& why);

    /// What became of a look into the oldest segment: DONE; FAILED where it cannot be read now, as
    /// without a free descriptor, but may be later; LOST where there is nothing in it any more.
    enum class Reading { DONE, FAILED, LOST };

    /// The oldest documents: at least one when there is any, and it can be read. A segment that
    /// could not be read when the spool was opened is counted here when it is its turn.
    /// @param why  set when it is not DONE
    Reading Peek(std::size_t most, std::vector<std::string>& documents, std::string& why);

    /// Forgets the oldest segment, which is LOST. @return how many documents it should have had
    std::size_t GiveUpSegment();

    /// Forgets the oldest documents, which have arrived, in as many segments as they lie.
    void Drop(std::size_t count);

    /// Forgets everything. @return how many documents that were
    std::size_t Clear();

    /// How many documents wait, as far as their segments could be read.
    std::size_t Count() const;
    bool IsEmpty() const;

private:
    struct Segment {
        std::uint64_t m_number = 0;
        std::uint64_t m_bytes = 0;
        std::size_t m_documents = 0;  // that wait
        bool m_counted = false;       // it could be read, or is of this agent
    };

    AlarmSpool(std::string folder, std::string name, std::uint64_t limit);

    bool Lock(std::string& why);
    bool FindSegments(std::string& why);
    bool ReadPosition(std::string& why);
    void CountDocuments();
    int CountIn(Segment& segment, std::uint64_t offset);
    bool OpenTail(std::string& why);
    bool AppendText(const std::string& text, std::string& why);
    int ReadFront(std::size_t most, std::vector<std::string>& documents);
    void MoveOffset();
    void RemoveFinished();
    void NotePosition() const;
    std::uint64_t Bytes() const;
    std::string PathOf(const Segment& segment) const;

    const std::string m_folder;
    const std::string m_name;
    const std::uint64_t m_limit;
    std::deque<Segment> m_segments;  // oldest first
    // Of the newest segment that ever was. No number comes twice: the note of how much has arrived
    // must not be taken for one about a later segment.
    std::uint64_t m_lastNumber = 0;
    std::uint64_t m_offset = 0;  // in the oldest: what has arrived
    std::size_t m_passed = 0;    // documents behind the offset that have arrived all the same
    SDK::UniqueDescriptor m_lock;
    SDK::UniqueDescriptor m_tail;  // the newest segment
    bool m_tailIsTorn = false;     // what is put behind its end may not begin a line
};

}  // namespace Engine
