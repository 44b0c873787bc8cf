#include "AlarmSink.h"

#include "DataCommLog.h"

#include <Poco/Error.h>

#include <cerrno>
#include <chrono>
#include <utility>

namespace Engine {

namespace {

constexpr std::chrono::seconds kDrainTime{2};

unsigned long Shown(std::uint64_t count) { return static_cast<unsigned long>(count); }

}  // namespace

AlarmSink::AlarmSink(std::unique_ptr<LineWriter> writer, AlarmFormatter formatter,
                     std::size_t capacity)
    : m_writer(std::move(writer)),
      m_formatter(formatter),
      m_capacity(capacity),
      m_thread([this] { Run(); }) {}

AlarmSink::~AlarmSink() { Stop(); }

bool AlarmSink::Offer(const std::string& document) {
    {
        const SDK::LockGuard lock(m_mutex);
        if (m_waiting.size() < m_capacity && !m_stopping) {
            m_waiting.push_back(document);
            // One free place does not end a burst, or a full queue would log every other alarm.
            m_dropping = m_dropping && m_waiting.size() > m_capacity / 2;
            m_changed.notify_one();
            return true;
        }
        ++m_dropped;
        if (std::exchange(m_dropping, true)) {
            return false;
        }
    }
    SDK::LogError(GetDataCommLogger(),
                  "The queue of output(%s) is full(%lu alarms). Alarms are dropped, %lu so far.",
                  m_writer->Name(), Shown(m_capacity), Shown(m_dropped));
    return false;
}

void AlarmSink::Stop() {
    if (!m_thread.joinable()) {
        return;
    }
    {
        const SDK::LockGuard lock(m_mutex);
        m_stopping = true;
    }
    m_changed.notify_all();
    m_writer->SetDeadline(std::chrono::steady_clock::now() + kDrainTime);
    m_thread.join();
    SDK::LogInformation(GetDataCommLogger(),
                        "Output(%s) ends: %lu alarms written, %lu dropped, %lu failed",
                        m_writer->Name(), Shown(m_written), Shown(m_dropped), Shown(m_failed));
}

void AlarmSink::Run() {
    std::string document;
    while (Take(document)) {
        Write(document);
    }
}

bool AlarmSink::Take(std::string& document) {
    m_mutex.lock();
    while (m_waiting.empty() && !m_stopping) {
        m_changed.wait(m_mutex);
    }
    if (m_stopping && m_writer->DeadlinePassed()) {
        m_dropped += m_waiting.size();
        m_waiting.clear();
    }
    const bool taken = !m_waiting.empty();
    if (taken) {
        document = std::move(m_waiting.front());
        m_waiting.pop_front();
    }
    m_mutex.unlock();
    return taken;
}

void AlarmSink::Write(const std::string& document) {
    if (m_writer->Write(m_formatter.Format(document))) {
        ++m_written;
        if (std::exchange(m_failing, false)) {
            SDK::LogInformation(GetDataCommLogger(),
                                "Output(%s) can be written again. %lu alarms failed so far.",
                                m_writer->Name(), Shown(m_failed));
        }
        return;
    }
    const int error = errno;
    ++m_failed;
    if (!std::exchange(m_failing, true)) {
        SDK::LogError(GetDataCommLogger(),
                      "Output(%s) cannot be written: %s. %lu alarms failed so far.",
                      m_writer->Name(), Poco::Error::getMessage(error), Shown(m_failed));
    }
}

}  // namespace Engine
