#pragma once

#include "ProcessSource.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <string>
#include <utility>
#include <vector>

/// A source that tells what a test puts in.
class ScriptedSource : public ProcessCollect::ProcessSource {
public:
    ScriptedSource() : m_descriptor(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}
    ~ScriptedSource() override { ::close(m_descriptor); }

    std::string Name() const override { return "script"; }
    bool Start() override { return true; }
    void Stop() override { m_stopped = true; }
    int Descriptor() const override { return m_descriptor; }
    std::size_t Drain(const Sink& sink) override {
        const std::size_t events = m_events.size();
        while (!m_events.empty()) {
            const ProcessCollect::ProcessEvent event = m_events.front();
            m_events.pop_front();
            sink(event);
        }
        return events;
    }
    int PrepareSleep(std::size_t drained) override { return drained > 0 ? 2 : 200; }
    std::uint64_t LostEvents() const override { return m_lost; }
    std::vector<ProcessCollect::LossCount> Losses() const override {
        return {{"ring full", m_lost, true}, {"arguments cut", m_cut, false}};
    }

    void Add(Engine::ProcsMessage::Flag type, int pid, int parent, std::uint64_t start,
             std::chrono::steady_clock::time_point time = {}) {
        ProcessCollect::ProcessEvent event;
        event.m_type = type;
        event.m_pid = pid;
        event.m_parentPid = parent;
        event.m_startTime = start;
        event.m_time = time;
        event.m_comm = "scripted";
        m_events.push_back(event);
    }

    std::uint64_t m_lost = 0;
    std::uint64_t m_cut = 0;
    bool m_stopped = false;

private:
    const int m_descriptor;
    std::deque<ProcessCollect::ProcessEvent> m_events;
};
