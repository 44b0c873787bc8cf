#include "AlarmSink.h"

#include "DataCommLog.h"
#include "sdk/TimeUtils.h"

#include <Poco/Format.h>

#include <algorithm>
#include <chrono>
#include <utility>

namespace Engine {

namespace {

constexpr std::chrono::seconds kDrainTime{2};

// Between two tries to write to a place that may come back.
constexpr std::chrono::milliseconds kFirstPause{100};
constexpr std::chrono::milliseconds kLongestPause{5000};

// Reasons of losses.
constexpr const char* kQueueFull = "queue_full";
constexpr const char* kNotWritten = "not_written";

unsigned long Shown(std::uint64_t count) { return static_cast<unsigned long>(count); }

}  // namespace

AlarmSink::AlarmSink(std::unique_ptr<AlarmWriter> writer, AlarmFormatter formatter,
                     std::size_t capacity)
    : m_writer(std::move(writer)),
      m_formatter(formatter),
      m_capacity(capacity),
      m_thread([this] { Run(); }) {}

AlarmSink::~AlarmSink() { Stop(); }

bool AlarmSink::Offer(const std::string& document) {
    std::uint64_t dropped = 0;
    {
        const SDK::LockGuard lock(m_mutex);
        ++m_offered;
        if (m_waiting.size() < m_capacity && !m_stopping) {
            m_waiting.push_back(document);
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
}

SDK::Ledger AlarmSink::GetLedger() const {
    const SDK::LockGuard lock(m_mutex);
    SDK::Ledger books;
    books.m_name = "alarms";
    books.m_by = m_writer->Name();
    books.m_seen = m_offered;
    books.m_delivered = m_written;
    books.m_waiting = m_waiting.size() + (m_writing ? 1 : 0);
    books.m_lost = {{kQueueFull, m_dropped}, {kNotWritten, m_failed}};
    books.m_lastS = m_lastS;
    if (!m_trouble.empty()) {
        books.m_trouble =
            Poco::format("Output(%s) cannot be written: %s", m_writer->Name(), m_trouble);
    }
    return books;
}

void AlarmSink::Run() {
    Prepare();
    std::string document;
    while (Take(document)) {
        Write(document);
    }
}

bool AlarmSink::Take(std::string& document) {
    m_mutex.lock();
    while (m_waiting.empty() && !m_stopping) {
        if (m_trouble.empty() || !m_writer->ShouldRetry()) {
            // Whether such a place takes alarms again only the next alarm can tell.
            m_changed.wait(m_mutex);
        } else if (m_changed.wait_for(m_mutex, kLongestPause) == std::cv_status::timeout) {
            // Whether the place is back is found out before an alarm needs it.
            m_mutex.unlock();
            Prepare();
            m_mutex.lock();
        }
    }
    if (m_stopping && m_writer->DeadlinePassed()) {
        m_dropped += m_waiting.size();
        m_waiting.clear();
    }
    m_writing = !m_waiting.empty();
    const bool taken = m_writing;
    if (taken) {
        document = std::move(m_waiting.front());
        m_waiting.pop_front();
    }
    m_mutex.unlock();
    return taken;
}

void AlarmSink::Write(const std::string& document) {
    const std::string line = m_formatter.Format(document);
    std::string why;
    std::chrono::milliseconds pause = kFirstPause;
    while (!m_writer->Write(line, HasMore(), why)) {
        const bool retry = m_writer->ShouldRetry();
        if (!retry) {
            CountFailed();
        }
        NoteTrouble(why);
        if (!retry) {
            return;
        }
        if (!Rest(pause)) {
            CountFailed();
            return;
        }
        pause = std::min(2 * pause, kLongestPause);
    }
    CountWritten();
}

/// Waits before another try. While the sink stops, the pauses are short, as there is little time.
/// @return false when there is no time for another try
bool AlarmSink::Rest(std::chrono::milliseconds pause) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + pause;
    const Clock::time_point shortEnd = Clock::now() + kFirstPause;
    m_mutex.lock();
    while (Clock::now() < (m_stopping ? shortEnd : end)) {
        m_changed.wait_until(m_mutex, m_stopping ? shortEnd : end);
    }
    const bool stopping = m_stopping;
    m_mutex.unlock();
    return !stopping || !m_writer->DeadlinePassed();
}

void AlarmSink::Prepare() {
    std::string why;
    if (m_writer->Prepare(why)) {
        NoteRecovery();
    } else {
        NoteTrouble(why);
    }
}

bool AlarmSink::HasMore() const {
    const SDK::LockGuard lock(m_mutex);
    return !m_waiting.empty();
}

void AlarmSink::CountWritten() {
    {
        const SDK::LockGuard lock(m_mutex);
        m_writing = false;
        ++m_written;
        m_lastS = SDK::TimeUtils::GetCurrentTimestampS();
    }
    NoteRecovery();
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

void AlarmSink::CountFailed() {
    const SDK::LockGuard lock(m_mutex);
    m_writing = false;
    ++m_failed;
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

}  // namespace Engine
