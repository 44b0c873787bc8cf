#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

/// Ends the program, which libFuzzer counts as a find, when what must always be true is not.
inline void Require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

/// Hands out a fuzzer's bytes piece by piece. The bytes stay the fuzzer's.
class FuzzInput {
public:
    FuzzInput(const std::uint8_t* data, std::size_t size) : m_next(data), m_left(size) {}

    bool IsEmpty() const { return m_left == 0; }

    /// The next byte; 0 when all are used up.
    unsigned int Byte() {
        if (m_left == 0) {
            return 0;
        }
        --m_left;
        return *m_next++;
    }

    /// Four bytes as a number, the lowest first.
    std::uint32_t Number() {
        std::uint32_t number = 0;
        for (unsigned int shift = 0; shift < 32; shift += 8) {
            number |= Byte() << shift;
        }
        return number;
    }

    /// Everything up to the next line end, which is dropped.
    std::string Line() {
        std::string line;
        while (m_left > 0) {
            const char next = static_cast<char>(Byte());
            if (next == '\n') {
                break;
            }
            line += next;
        }
        return line;
    }

    /// Everything that is left.
    std::string Rest() {
        const std::string rest(m_next, m_next + m_left);
        m_left = 0;
        return rest;
    }

private:
    const std::uint8_t* m_next;
    std::size_t m_left;
};
