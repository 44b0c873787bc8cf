#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace TestSupport {

/// The place of a virtual operation in its class's table, the first being 0. A pointer to a virtual
/// member holds one plus the place in bytes (Itanium C++ ABI, 2.3 Member Function Pointers).
template <typename Method>
std::size_t VirtualSlot(Method method) {
    std::uintptr_t value = 0;
    std::memcpy(&value, &method, sizeof(value));
    return (value - 1) / sizeof(void*);
}

}  // namespace TestSupport
