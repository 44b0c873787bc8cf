#include "RecordedFiles.h"

#include <atomic>

namespace Replay {

namespace {

std::atomic<RecordedFiles*> g_current{nullptr};

}  // namespace

RecordedFiles::RecordedFiles() { g_current.store(this); }

RecordedFiles::~RecordedFiles() { g_current.store(nullptr); }

RecordedFiles* RecordedFiles::Current() { return g_current.load(); }

void RecordedFiles::SetText(const std::string& path, const std::string& text) {
    const SDK::LockGuard lock(m_mutex);
    m_textPath = path;
    m_text = text;
}

void RecordedFiles::SetRegular(const std::string& path, bool regular) {
    const SDK::LockGuard lock(m_mutex);
    m_accessed = path;
    m_regular = regular;
}

bool RecordedFiles::FindText(const std::string& path, std::string& text) const {
    const SDK::LockGuard lock(m_mutex);
    if (path.empty() || path != m_textPath) {
        return false;
    }
    text = m_text;
    return true;
}

bool RecordedFiles::FindRegular(const std::string& path, bool& regular) const {
    const SDK::LockGuard lock(m_mutex);
    if (path.empty() || path != m_accessed) {
        return false;
    }
    regular = m_regular;
    return true;
}

}  // namespace Replay
