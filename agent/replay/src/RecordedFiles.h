#pragma once

#include "sdk/Mutex.h"

#include <string>

namespace Replay {

/// What the product asks of the host's files, as the recording answers it. The functions that it
/// asks with (SDK::FileUtils) lead here while this lives: see ReplacedFunctions.cpp.
///
/// Threads: any. One at a time.
class RecordedFiles {
public:
    RecordedFiles();
    ~RecordedFiles();
    RecordedFiles(const RecordedFiles&) = delete;
    RecordedFiles& operator=(const RecordedFiles&) = delete;

    /// The one that counts, or null: files are really looked at.
    static RecordedFiles* Current();

    /// The text of a file of the recorded host.
    void SetText(const std::string& path, const std::string& text);

    /// Whether the path whose access is judged next led to a regular file.
    void SetRegular(const std::string& path, bool regular);

    /// @return false when nothing is recorded of the file
    bool FindText(const std::string& path, std::string& text) const;
    bool FindRegular(const std::string& path, bool& regular) const;

private:
    mutable SDK::Mutex m_mutex;
    std::string m_textPath SDK_GUARDED_BY(m_mutex);
    std::string m_text SDK_GUARDED_BY(m_mutex);
    std::string m_accessed SDK_GUARDED_BY(m_mutex);
    bool m_regular SDK_GUARDED_BY(m_mutex) = false;
};

}  // namespace Replay
