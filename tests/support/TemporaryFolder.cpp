#include "support/TemporaryFolder.h"

#include <filesystem>
#include <fstream>
#include <sstream>

namespace TestSupport {

std::string TemporaryFolder::Write(const std::string& name, const std::string& text) const {
    const std::string path = *this / name;
    std::ofstream(path, std::ios::binary) << text;
    return path;
}

std::string TemporaryFolder::Replace(const std::string& name, const std::string& text) const {
    const std::string written = Write('.' + name + ".new", text);
    std::filesystem::rename(written, *this / name);
    return *this / name;
}

std::string ReadText(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

}  // namespace TestSupport
