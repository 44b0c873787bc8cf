#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <string>

/// A pipe whose reader is the test, awake or asleep. Writing into it after CloseReader fails
/// instead of ending the test.
class TestPipe {
public:
    TestPipe() {
        ::signal(SIGPIPE, SIG_IGN);
        EXPECT_EQ(::pipe2(m_ends.data(), O_CLOEXEC), 0);
        ::fcntl(ReadEnd(), F_SETFL, O_NONBLOCK);
    }
    ~TestPipe() {
        CloseReader();
        ::close(WriteEnd());
    }
    TestPipe(const TestPipe&) = delete;
    TestPipe& operator=(const TestPipe&) = delete;

    int ReadEnd() const { return m_ends[0]; }
    int WriteEnd() const { return m_ends[1]; }

    void CloseReader() {
        if (ReadEnd() >= 0) {
            ::close(ReadEnd());
            m_ends[0] = -1;
        }
    }

    /// Fills the pipe to the last byte.
    void Fill() const {
        ::fcntl(WriteEnd(), F_SETFL, O_NONBLOCK);
        const std::array<char, 4096> zeros{};
        while (::write(WriteEnd(), zeros.data(), zeros.size()) > 0) {
        }
        while (::write(WriteEnd(), zeros.data(), 1) > 0) {
        }
        ::fcntl(WriteEnd(), F_SETFL, 0);
    }

    /// What is in the pipe, which is empty afterwards.
    std::string Read() const {
        std::string text;
        std::array<char, 65536> buffer;
        for (ssize_t size = 0; (size = ::read(ReadEnd(), buffer.data(), buffer.size())) > 0;) {
            text.append(buffer.data(), static_cast<std::size_t>(size));
        }
        return text;
    }

private:
    std::array<int, 2> m_ends{-1, -1};
};
