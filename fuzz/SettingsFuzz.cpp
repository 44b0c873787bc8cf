// A configuration of any kind is read or refused, and what it leaves lies within the bounds.

#include "FuzzInput.h"
#include "Settings.h"

#include <sys/mman.h>
#include <unistd.h>

namespace {

/// A file in memory.
class MemoryFile {
public:
    explicit MemoryFile(const std::string& text) : m_file(::memfd_create("settings", MFD_CLOEXEC)) {
        Require(m_file >= 0 &&
                ::write(m_file, text.data(), text.size()) == static_cast<ssize_t>(text.size()));
    }
    ~MemoryFile() { ::close(m_file); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    std::string Path() const { return "/proc/self/fd/" + std::to_string(m_file); }

private:
    const int m_file;
};

void CheckNumber(const Agent::Settings& settings, const std::string& key, int least, int most) {
    const int number = settings.GetInt(key);
    Require(number >= least && number <= most);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzInput input(data, size);
    const std::string key = input.Line();
    const std::string value = input.Line();
    Agent::Settings settings;
    settings.Load(MemoryFile(input.Rest()).Path());
    const bool refused = !settings.Set(key, value).empty();
    Require(refused || settings.Has(key));
    CheckNumber(settings, "cpu_share", 0, 100);
    CheckNumber(settings, "report.queue", 1, 1000000);
    CheckNumber(settings, "process_collect.ring_bytes", 4096, 1 << 30);
    settings.GetList("optional_modules");
    settings.GetList("report.output");
    return 0;
}
