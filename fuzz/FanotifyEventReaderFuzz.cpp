// Whatever stands in a buffer of fanotify events, none reaches beyond it.

#include "FanotifyEventReader.h"

#include "FuzzInput.h"

#include <cstring>
#include <vector>

namespace {

/// Whether a view lies within a buffer.
bool IsInside(std::string_view view, const char* data, std::size_t size) {
    return view.empty() || (view.data() >= data && view.data() + view.size() <= data + size);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::uint64_t> buffer(size / sizeof(std::uint64_t) + 1);
    std::memcpy(buffer.data(), data, size);
    const char* const bytes = reinterpret_cast<const char*>(buffer.data());
    FileNotify::FanotifyEventReader::Read(bytes, size, [&](const FileNotify::FanotifyEvent& event) {
        Require(IsInside(event.m_directory, bytes, size));
        Require(IsInside(event.m_name, bytes, size));
        Require(event.m_hasKey || event.m_directory.empty());
    });
    return 0;
}
