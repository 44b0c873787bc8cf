#include "AlarmSink.h"

#include "DataCommLog.h"
#include "sdk/TimeUtils.h"

#include <Poco/Format.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <iterator>
#include <utility>

namespace Engine {

namespace {

constexpr std::chrono::seconds kDrainTime{2};

// Between two tries to write to a place that may come back.
constexpr std::chrono::milliseconds kLongestPause{5000};

// Reasons of losses.
constexpr const char* kQueueFull = "queue_full";
constexpr const char* kNotWritten = "not_written";

unsigned long Shown(std::uint64_t count) { return static_cast<unsigned long>(count); }

}  // namespace

AlarmSink::AlarmSink(std::unique_ptr<AlarmWriter> writer, AlarmFormatter formatter,
                     std::size_t capacity, std::unique_ptr<AlarmSpool> spool)
    : m_writer(std::move(writer)),
      m_formatter(formatter),
      m_capacity(capacity),
      m_spool(std::move(spool)),
      m_thread([this] { Run(); }) {}

AlarmSink::~AlarmSink() { Stop(); }

bool AlarmSink::Offer(const std::string& document) {
    std::uint64_t dropped = 0;
    {
        const SDK::LockGuard lock(m_mutex);
        ++m_offered;
        if (m_waiting.size() < m_capacity && !m_stopping) {
            m_waiting.push_back(document);
            m_times.Push(std::chrono::steady_clock::now());
            // One free place does not end a burst, or a full queue would log every other alarm.
            m_dropping = m_dropping && m_waiting.size() > m_capacity / 2;
            m_changed.notify_one();
            return true;
        }
        dropped = ++m_dropped;
        if (std::exchange(m_dropping, true)) {
            return false;
        }
    }
    SDK::LogError(GetDataCommLogger(),
                  "The queue of output(%s) is full(%lu alarms). Alarms are dropped, %lu so far.",
                  m_writer->Name(), Shown(m_capacity), Shown(dropped));
    return false;
}

void AlarmSink::Reopen() {
    const SDK::LockGuard lock(m_mutex);
    m_reopening = true;
    m_changed.notify_all();
}

void AlarmSink::BeginStop() {
    const SDK::LockGuard lock(m_mutex);
    if (!std::exchange(m_stopping, true)) {
        m_writer->SetDeadline(std::chrono::steady_clock::now() + kDrainTime);
        m_changed.notify_all();
    }
}

void AlarmSink::Stop() {
    if (!m_thread.joinable()) {
        return;
    }
    BeginStop();
    m_thread.join();
    const SDK::Ledger books = GetLedger();
    SDK::Log(GetDataCommLogger(),
             books.Lost() > 0 ? Poco::Message::PRIO_WARNING : Poco::Message::PRIO_INFORMATION,
             "Output(%s) ends: %lu alarms written, %lu dropped, %lu failed", books.m_by,
             Shown(books.m_delivered), Shown(books.m_lost.at(kQueueFull)),
             Shown(books.m_lost.at(kNotWritten)));
    if (books.m_waiting > 0) {
        SDK::LogWarning(GetDataCommLogger(),
                        "Output(%s) leaves %lu alarms in its spool, for the next start", books.m_by,
                        Shown(books.m_waiting));
    }
}

SDK::Ledger AlarmSink::GetLedger() const {
    const SDK::LockGuard lock(m_mutex);
    SDK::Ledger books;
    books.m_name = "alarms";
    books.m_by = m_writer->Name();
    books.m_seen = m_offered;
    books.m_delivered = m_written;
    books.m_waiting = m_waiting.size() + m_away;
    books.m_lost = {{kQueueFull, m_dropped}, {kNotWritten, m_failed}};
    books.m_latency = m_latency;
    books.m_lastS = m_lastS;
    if (!m_trouble.empty()) {
        books.m_trouble =
            Poco::format("Output(%s) cannot be written: %s", m_writer->Name(), m_trouble);
    }
    return books;
}

void AlarmSink::Run() {
    TakeOverSpool();
    Prepare();
    while (Take()) {
        WriteHand();
    }
}

void AlarmSink::TakeOverSpool() {
    if (m_spool == nullptr || m_spool->Count() == 0) {
        return;
    }
    NoteFound(m_spool->Count());
    SDK::Log(GetDataCommLogger(), Poco::Message::PRIO_NOTICE,
             "Output(%s) has %lu alarms in its spool from before", m_writer->Name(),
             Shown(m_spool->Count()));
}

/// Books what an agent before this one left.
void AlarmSink::NoteFound(std::size_t count) {
    const SDK::LockGuard lock(m_mutex);
    m_offered += count;
    m_away += count;
    m_times.PushOldest(count);
}

/// Fills the hand. @return false when the end has come
bool AlarmSink::Take() {
    if (!WaitForWork()) {
        GiveUpQueue();
        return false;
    }
    if (m_spool != nullptr && !m_spool->IsEmpty()) {
        Spill();  // what came later stays behind what came earlier
        TakeFromSpool();
    } else {
        TakeFromQueue();
    }
    return true;
}

/// @return false when the sink stops, and there is nothing to do or no time for it
bool AlarmSink::WaitForWork() {
    const bool spooled = m_spool != nullptr && !m_spool->IsEmpty();
    m_mutex.lock();
    while (m_waiting.empty() && !spooled && !m_stopping && !m_reopening) {
        if (m_trouble.empty() || !m_writer->CanBeProbed()) {
            m_changed.wait(m_mutex);
        } else if (m_changed.wait_for(m_mutex, kLongestPause) == std::cv_status::timeout) {
            // Whether the place is back is found out before an alarm needs it.
            m_mutex.unlock();
            Prepare();
            m_mutex.lock();
        }
    }
    const bool reopen = std::exchange(m_reopening, false);
    const bool end = m_stopping && ((m_waiting.empty() && !spooled) || m_writer->DeadlinePassed());
    m_mutex.unlock();
    if (reopen) {
        Prepare();
    }
    return !end;
}

void AlarmSink::TakeFromSpool() {
    using Reading = AlarmSpool::Reading;
    const std::size_t before = m_spool->Count();
    std::vector<std::string> documents;
    std::string why;
    const Reading reading = m_spool->Peek(m_writer->BatchSize(), documents, why);
    NoteFound(m_spool->Count() - before);
    for (std::string& document : documents) {
        AddToHand(std::move(document));
    }
    m_handIsSpooled = true;
    if (reading == Reading::FAILED) {
        NoteTrouble(why);
        Rest(m_spoolPause);
        m_spoolPause = std::min(2 * m_spoolPause, kLongestPause);
        return;
    }
    m_spoolPause = FIRST_PAUSE;
    if (reading == Reading::LOST) {
        GiveUpSegment(why);
    }
}

void AlarmSink::GiveUpSegment(const std::string& why) {
    const std::size_t lost = m_spool->GiveUpSegment();
    {
        const SDK::LockGuard lock(m_mutex);
        m_away -= lost;
        m_times.DropOldest(lost);
        m_failed += lost;
    }
    SDK::LogError(GetDataCommLogger(), "Output(%s) has lost %lu alarms of its spool: %s",
                  m_writer->Name(), Shown(lost), why);
}

void AlarmSink::TakeFromQueue() {
    std::vector<std::string> taken;
    {
        const SDK::LockGuard lock(m_mutex);
        const std::size_t count = std::min(m_waiting.size(), m_writer->BatchSize());
        for (std::size_t i = 0; i < count; ++i) {
            taken.push_back(std::move(m_waiting.front()));
            m_waiting.pop_front();
        }
        m_away += count;
    }
    for (std::string& document : taken) {
        AddToHand(std::move(document));
    }
    m_handIsSpooled = false;
}

void AlarmSink::AddToHand(std::string document) {
    std::string text = m_formatter.Format(document);
    m_hand.push_back({std::move(document), std::move(text)});
}

void AlarmSink::WriteHand() {
    std::chrono::milliseconds pause = FIRST_PAUSE;
    while (!m_hand.empty()) {
        if (IsInTrouble()) {
            Spill();  // a try may last; only what comes during it is not on disk
        }
        std::string why;
        const std::size_t done = m_writer->Write(m_hand, why);
        SettleFirst(done);
        if (m_hand.empty()) {
            NoteRecovery();
        } else if (!m_writer->ShouldRetry()) {
            FailFirst();
            NoteTrouble(why);
        } else {
            NoteTrouble(why);
            Spill();
            pause = done > 0 ? FIRST_PAUSE : pause;
            if (!Rest(pause)) {
                GiveUpHand();
            }
            pause = std::min(2 * pause, kLongestPause);
        }
    }
}

/// Takes what has arrived out of the hand.
void AlarmSink::SettleFirst(std::size_t count) {
    if (count == 0) {
        return;
    }
    if (m_handIsSpooled) {
        m_spool->Drop(count);
    }
    m_hand.erase(m_hand.begin(), m_hand.begin() + static_cast<std::ptrdiff_t>(count));
    const SDK::LockGuard lock(m_mutex);
    m_away -= count;
    m_written += count;
    m_times.Deliver(count, m_latency);
    m_lastS = SDK::TimeUtils::GetCurrentTimestampS();
}

/// Takes what never will be written out of the hand.
void AlarmSink::FailFirst() {
    if (m_handIsSpooled) {
        m_spool->Drop(1);
    }
    m_hand.erase(m_hand.begin());
    const SDK::LockGuard lock(m_mutex);
    --m_away;
    ++m_failed;
    m_times.DropOldest(1);
}

/// There is no time for another try. What is in the spool stays there.
void AlarmSink::GiveUpHand() {
    if (!m_handIsSpooled) {
        const SDK::LockGuard lock(m_mutex);
        m_away -= m_hand.size();
        m_failed += m_hand.size();
        m_times.DropOldest(m_hand.size());
    }
    m_hand.clear();
}

void AlarmSink::GiveUpQueue() {
    Spill();
    const SDK::LockGuard lock(m_mutex);
    m_dropped += m_waiting.size();
    m_times.DropNewest(m_waiting.size());
    m_waiting.clear();
}

/// Puts what waits in memory on disk, as far as there is room.
void AlarmSink::Spill() {
    if (m_spool == nullptr || !SpillHand()) {
        return;
    }
    std::deque<std::string> moved;
    {
        const SDK::LockGuard lock(m_mutex);
        moved.swap(m_waiting);
        m_away += moved.size();
    }
    std::string why;
    const std::size_t done = moved.empty() ? 0 : m_spool->Append(moved, why);
    if (done == moved.size()) {
        m_spoolFails = false;
        return;
    }
    {
        const SDK::LockGuard lock(m_mutex);
        m_away -= moved.size() - done;
        m_waiting.insert(m_waiting.begin(),
                         std::make_move_iterator(moved.begin() + static_cast<std::ptrdiff_t>(done)),
                         std::make_move_iterator(moved.end()));
    }
    NoteSpoolFailure(why);
}

/// Puts a hand that was taken off the queue, which is only done while the spool is empty, on disk.
bool AlarmSink::SpillHand() {
    if (m_hand.empty() || m_handIsSpooled) {
        return true;
    }
    std::deque<std::string> documents;
    for (const OutgoingAlarm& alarm : m_hand) {
        documents.push_back(alarm.m_document);
    }
    std::string why;
    m_handIsSpooled = m_spool->Append(documents, why) == documents.size();
    if (!m_handIsSpooled) {
        m_spool->Clear();
        NoteSpoolFailure(why);
    }
    return m_handIsSpooled;
}

/// Waits before another try. While the sink stops, the pauses are short, as there is little time.
/// @return false when there is no time for another try
bool AlarmSink::Rest(std::chrono::milliseconds pause) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + pause;
    const Clock::time_point shortEnd = Clock::now() + FIRST_PAUSE;
    m_mutex.lock();
    while (Clock::now() < (m_stopping ? shortEnd : end)) {
        m_changed.wait_until(m_mutex, m_stopping ? shortEnd : end);
        if (m_spool != nullptr && !m_spoolFails && !m_waiting.empty()) {
            m_mutex.unlock();
            Spill();  // an agent that is killed now loses nothing
            m_mutex.lock();
        }
    }
    const bool stopping = m_stopping;
    m_mutex.unlock();
    return !stopping || !m_writer->DeadlinePassed();
}

void AlarmSink::Prepare() {
    std::string why;
    if (!m_writer->Prepare(why)) {
        NoteTrouble(why);
    } else if (m_writer->CanBeProbed()) {
        NoteRecovery();
    }
}

bool AlarmSink::IsInTrouble() const {
    const SDK::LockGuard lock(m_mutex);
    return !m_trouble.empty();
}

void AlarmSink::NoteRecovery() {
    std::uint64_t failed = 0;
    {
        const SDK::LockGuard lock(m_mutex);
        if (std::exchange(m_trouble, "").empty()) {
            return;
        }
        failed = m_failed;
    }
    SDK::Log(GetDataCommLogger(), Poco::Message::PRIO_NOTICE,
             "Output(%s) can be written again. %lu alarms failed so far.", m_writer->Name(),
             Shown(failed));
}

void AlarmSink::NoteTrouble(const std::string& why) {
    std::uint64_t failed = 0;
    {
        const SDK::LockGuard lock(m_mutex);
        failed = m_failed;
        if (!std::exchange(m_trouble, why).empty()) {
            return;
        }
    }
    SDK::LogError(GetDataCommLogger(),
                  "Output(%s) cannot be written: %s. %lu alarms failed so far.", m_writer->Name(),
                  why, Shown(failed));
}

/// Says so once, until something could be put there again.
void AlarmSink::NoteSpoolFailure(const std::string& why) {
    if (!std::exchange(m_spoolFails, true)) {
        SDK::LogError(GetDataCommLogger(),
                      "Output(%s) cannot put more alarms into its spool: %s. They wait in memory.",
                      m_writer->Name(), why);
    }
}

}  // namespace Engine
