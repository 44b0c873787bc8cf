#include "support/CapturedLog.h"

#include "sdk/LoggerUtils.h"
#include "sdk/Mutex.h"

#include <Poco/Channel.h>

#include <algorithm>

namespace TestSupport {

class CapturingChannel : public Poco::Channel {
public:
    void log(const Poco::Message& message) override {
        const SDK::LockGuard lock(m_mutex);
        m_lines.push_back({message.getSource(), message.getPriority(), message.getText(),
                           message.getSourceFile() == nullptr ? "" : message.getSourceFile(),
                           message.getSourceLine()});
    }

    std::vector<CapturedLog::Line> Lines() const {
        const SDK::LockGuard lock(m_mutex);
        return m_lines;
    }

    void Clear() {
        const SDK::LockGuard lock(m_mutex);
        m_lines.clear();
    }

private:
    mutable SDK::Mutex m_mutex;
    std::vector<CapturedLog::Line> m_lines SDK_GUARDED_BY(m_mutex);
};

CapturedLog::CapturedLog(int level) : m_channel(new CapturingChannel) {
    SDK::LoggerUtils::GetInstance()->Configure(m_channel, level);
}

CapturedLog::~CapturedLog() {
    SDK::LoggerUtils::GetInstance()->Configure(nullptr, Poco::Message::PRIO_INFORMATION);
}

std::vector<CapturedLog::Line> CapturedLog::Lines() const { return m_channel->Lines(); }

std::vector<std::string> CapturedLog::Texts(Poco::Message::Priority priority) const {
    std::vector<std::string> texts;
    for (const Line& line : Lines()) {
        if (line.priority == priority) {
            texts.push_back(line.text);
        }
    }
    return texts;
}

std::size_t CapturedLog::Count(Poco::Message::Priority priority, const std::string& text) const {
    const std::vector<std::string> texts = Texts(priority);
    return static_cast<std::size_t>(std::count(texts.begin(), texts.end(), text));
}

bool CapturedLog::Contains(const std::string& part) const {
    const std::vector<Line> lines = Lines();
    return std::any_of(lines.begin(), lines.end(), [&part](const Line& line) {
        return line.text.find(part) != std::string::npos;
    });
}

void CapturedLog::Clear() { m_channel->Clear(); }

}  // namespace TestSupport
