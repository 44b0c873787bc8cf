#include "sdk/Log.h"

#include "sdk/PathUtils.h"

namespace SDK {

void WriteLog(Poco::Logger* logger, Poco::Message::Priority priority, const std::string& text,
              const char* file, int line) {
    // Poco::Message keeps the pointer it is given, and a channel may keep the message: the base
    // name is the end of the literal itself.
    const std::string path = file;
    const char* fileName = file + path.length() - PathUtils::GetFileNameFromPath(path).length();
    logger->log(Poco::Message(logger->name(), text, priority, fileName, line));
}

}  // namespace SDK
