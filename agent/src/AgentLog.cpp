#include "AgentLog.h"

#include "LogChannel.h"
#include "sdk/StrUtils.h"

#include <Poco/AutoPtr.h>
#include <Poco/FormattingChannel.h>
#include <Poco/PatternFormatter.h>

#include <unistd.h>

namespace Agent {

namespace {

/// Lines of text that nothing in them can leave: names of files and processes are strangers' words.
class EscapingFormatter : public Poco::PatternFormatter {
public:
    using Poco::PatternFormatter::PatternFormatter;

    void format(const Poco::Message& message, std::string& text) override {
        Poco::Message safe(message);
        safe.setText(SDK::StrUtils::EscapeForTerminal(message.getText()));
        Poco::PatternFormatter::format(safe, text);
    }
};

}  // namespace

void StartLog(const std::string& level) {
    Poco::AutoPtr<Poco::Formatter> formatter(
        new EscapingFormatter("%Y-%m-%d %H:%M:%S.%i %p %s: %t"));
    formatter->setProperty("times", "local");
    Poco::AutoPtr<Poco::Channel> lines(new LogChannel(STDERR_FILENO));
    const Poco::AutoPtr<Poco::Channel> channel(new Poco::FormattingChannel(formatter, lines));
    SDK::LoggerUtils::GetInstance()->Configure(channel, Poco::Logger::parseLevel(level));
}

}  // namespace Agent
