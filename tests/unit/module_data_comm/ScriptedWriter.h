#pragma once

#include "AlarmWriter.h"
#include "sdk/Mutex.h"

#include <algorithm>
#include <string>
#include <vector>

/// A place that takes alarms, or does not, as a test says.
class ScriptedWriter : public Engine::AlarmWriter {
public:
    /// What it has taken, shared with the test, which it does not outlive.
    struct Place {
        /// Alarms that it takes from now on; -1: all.
        void Take(int count) {
            const SDK::LockGuard lock(m_mutex);
            m_room = count;
        }
        std::vector<std::string> Taken() {
            const SDK::LockGuard lock(m_mutex);
            return m_taken;
        }
        int Prepared() {
            const SDK::LockGuard lock(m_mutex);
            return m_prepared;
        }

        SDK::Mutex m_mutex;
        std::vector<std::string> m_taken SDK_GUARDED_BY(m_mutex);
        int m_room SDK_GUARDED_BY(m_mutex) = -1;
        int m_prepared SDK_GUARDED_BY(m_mutex) = 0;
    };

    explicit ScriptedWriter(Place& place, bool retry = true, std::size_t batch = 3)
        : AlarmWriter("place"), m_place(place), m_retry(retry), m_batch(batch) {}

    bool Prepare(std::string& why) override {
        const SDK::LockGuard lock(m_place.m_mutex);
        ++m_place.m_prepared;
        why = "away";
        return m_place.m_room != 0;
    }
    std::size_t BatchSize() const override { return m_batch; }
    std::size_t Write(const std::vector<Engine::OutgoingAlarm>& alarms, std::string& why) override {
        const SDK::LockGuard lock(m_place.m_mutex);
        std::size_t done = 0;
        for (; done < alarms.size() && m_place.m_room != 0; ++done) {
            m_place.m_taken.push_back(alarms[done].m_text);
            m_place.m_room = std::max(m_place.m_room - 1, -1);
        }
        why = "away";
        return done;
    }
    bool ShouldRetry() const override { return m_retry; }

private:
    Place& m_place;
    const bool m_retry;
    const std::size_t m_batch;
};
