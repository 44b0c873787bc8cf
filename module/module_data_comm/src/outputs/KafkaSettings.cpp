#include "outputs/KafkaSettings.h"

#include "outputs/GuardedFile.h"
#include "sdk/StrUtils.h"

#include <Poco/Error.h>
#include <Poco/Format.h>

#include <cerrno>
#include <fstream>

namespace Engine {

namespace {

// Without word of what has arrived everything would be sent again and again.
constexpr const char* kReports = "delivery.report.only.error";

}  // namespace

bool KafkaSettings::ReadProperties(const std::string& path, std::string& wrong) {
    wrong = GuardedFile::WhyNot(path, GuardedFile::Others::MAY_NOT_READ);
    if (!wrong.empty()) {
        return false;
    }
    std::ifstream file(path);
    if (!file) {
        wrong = Poco::format("%s: %s", path, Poco::Error::getMessage(errno));
        return false;
    }
    int number = 0;
    for (std::string line; std::getline(file, line);) {
        ++number;
        SDK::StrUtils::Trim(line);
        if (line.empty() || line.front() == '#') {
            continue;
        }
        const std::size_t equals = line.find('=');
        if (equals == 0 || equals == std::string::npos) {
            wrong = Poco::format("%s:%d: expected NAME=VALUE", path, number);
            return false;
        }
        std::string name = line.substr(0, equals);
        std::string value = line.substr(equals + 1);
        SDK::StrUtils::Trim(name);
        SDK::StrUtils::Trim(value);
        if (name == kReports) {
            wrong =
                Poco::format("%s:%d: %s cannot be set, an alarm counts as delivered by its report",
                             path, number, name);
            return false;
        }
        m_properties.emplace_back(name, value);
    }
    return true;
}

}  // namespace Engine
