#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Message.h>

#include <cstddef>
#include <string>
#include <vector>

namespace TestSupport {

class CapturingChannel;

/// Catches every line that is logged while it lives. One at a time. Threads may log meanwhile.
class CapturedLog {
public:
    struct Line {
        std::string logger;
        Poco::Message::Priority priority;
        std::string text;
        std::string file;
        int line;
    };

    /// @param level  lines of a lower priority are not written
    explicit CapturedLog(int level = Poco::Message::PRIO_DEBUG);
    ~CapturedLog();
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;

    std::vector<Line> Lines() const;

    /// The texts of one priority, in order.
    std::vector<std::string> Texts(Poco::Message::Priority priority) const;

    /// How many lines have exactly this priority and text.
    std::size_t Count(Poco::Message::Priority priority, const std::string& text) const;

    /// Whether any line holds this text.
    bool Contains(const std::string& part) const;

    void Clear();

private:
    Poco::AutoPtr<CapturingChannel> m_channel;
};

}  // namespace TestSupport
