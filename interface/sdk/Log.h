#pragma once

#include <Poco/Any.h>
#include <Poco/Format.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <string>
#include <utility>
#include <vector>

namespace SDK {

/// A line's text together with the place in the source that wrote it. It is built from a literal at
/// the call, so that callers name neither file nor line. The compiler's built-ins are used because
/// std::source_location is missing from Clang 14.
struct LogText {
    // NOLINTNEXTLINE(google-explicit-constructor): the conversion is what makes calls readable
    LogText(const char* text, const char* file = __builtin_FILE(), int line = __builtin_LINE())
        : m_text(text), m_file(file), m_line(line) {}

    const char* m_text;
    const char* m_file;
    int m_line;
};

/// True when a line of this priority would be written: the logger exists, has a channel and a level
/// that admits it. Testing first keeps unwanted lines from costing more than this test.
inline bool LogEnabled(const Poco::Logger* logger, Poco::Message::Priority priority) {
    return logger != nullptr && logger->getLevel() >= priority && !logger->getChannel().isNull();
}

/// Writes one line that carries the logger's name, the text, the priority, the source file's base
/// name and the source line. The logger must not be null.
void WriteLog(Poco::Logger* logger, Poco::Message::Priority priority, const std::string& text,
              const char* file, int line);

/// Formats as Poco::format does ("%s" a std::string, "%d" an int, "%lu" an unsigned long) and
/// writes the line when the logger admits the priority; does nothing otherwise.
template <typename... Args>
void Log(Poco::Logger* logger, Poco::Message::Priority priority, const LogText& text,
         Args&&... args) {
    if (!LogEnabled(logger, priority)) {
        return;
    }
    std::string line;
    if constexpr (sizeof...(args) == 0) {
        line = text.m_text;
    } else {
        const std::vector<Poco::Any> values{Poco::Any(std::forward<Args>(args))...};
        Poco::format(line, text.m_text, values);
    }
    WriteLog(logger, priority, line, text.m_file, text.m_line);
}

/// Bad input, missing objects, failed calls, limits that were hit.
template <typename... Args>
void LogError(Poco::Logger* logger, const LogText& text, Args&&... args) {
    Log(logger, Poco::Message::PRIO_ERROR, text, std::forward<Args>(args)...);
}

/// Something that still works, but not as well as it should.
template <typename... Args>
void LogWarning(Poco::Logger* logger, const LogText& text, Args&&... args) {
    Log(logger, Poco::Message::PRIO_WARNING, text, std::forward<Args>(args)...);
}

/// Lifecycle steps, registrations, sent alarms.
template <typename... Args>
void LogInformation(Poco::Logger* logger, const LogText& text, Args&&... args) {
    Log(logger, Poco::Message::PRIO_INFORMATION, text, std::forward<Args>(args)...);
}

/// Decisions, one line each.
template <typename... Args>
void LogDebug(Poco::Logger* logger, const LogText& text, Args&&... args) {
    Log(logger, Poco::Message::PRIO_DEBUG, text, std::forward<Args>(args)...);
}

}  // namespace SDK
