#pragma once

#include "StatusServer.h"

#include <gtest/gtest.h>

#include <poll.h>

#include <atomic>
#include <string>
#include <thread>

/// Answers one request at a socket as an agent would, on a thread of its own, while it lives.
class AnsweringAgent {
public:
    /// @param request  what must be asked for
    AnsweringAgent(const std::string& path, const std::string& request, const std::string& answer) {
        EXPECT_EQ(m_server.Open(path), "");
        m_thread = std::thread([this, request, answer] {
            pollfd waited{m_server.Descriptor(), POLLIN, 0};
            while (!m_asked && ::poll(&waited, 1, 20000) > 0) {
                m_server.Answer([&](const std::string& asked) {
                    m_asked = true;
                    EXPECT_EQ(asked, request);
                    return answer;
                });
            }
        });
    }
    ~AnsweringAgent() { m_thread.join(); }
    AnsweringAgent(const AnsweringAgent&) = delete;
    AnsweringAgent& operator=(const AnsweringAgent&) = delete;

private:
    Agent::StatusServer m_server;
    std::atomic<bool> m_asked{false};
    std::thread m_thread;
};
