#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace SDK {

/// Owns a file descriptor and closes it. Movable; one thread at a time.
class UniqueDescriptor {
public:
    UniqueDescriptor() = default;

    /// @param descriptor  owned from now on; -1 is none
    explicit UniqueDescriptor(int descriptor) : m_descriptor(descriptor) {}
    ~UniqueDescriptor() { Reset(); }

    UniqueDescriptor(UniqueDescriptor&& other) noexcept
        : m_descriptor(std::exchange(other.m_descriptor, -1)) {}
    UniqueDescriptor& operator=(UniqueDescriptor&& other) noexcept {
        Reset(std::exchange(other.m_descriptor, -1));
        return *this;
    }

    /// The descriptor, still owned here; -1 when there is none.
    int Get() const { return m_descriptor; }
    explicit operator bool() const { return m_descriptor >= 0; }

    /// Gives the descriptor up: the caller owns it.
    int Release() { return std::exchange(m_descriptor, -1); }

    /// Closes what is owned and owns another one. errno stays as it was.
    void Reset(int descriptor = -1) {
        const int old = std::exchange(m_descriptor, descriptor);
        if (old >= 0 && old != descriptor) {
            const int error = errno;
            ::close(old);
            errno = error;
        }
    }

private:
    int m_descriptor = -1;
};

}  // namespace SDK
