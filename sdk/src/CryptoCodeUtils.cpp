#include "sdk/CryptoCodeUtils.h"

#include <Poco/UUID.h>
#include <Poco/UUIDGenerator.h>

namespace SDK {

std::string CryptoCodeUtils::GenerateUUID() {
    return Poco::UUIDGenerator::defaultGenerator().createRandom().toString();
}

}  // namespace SDK
