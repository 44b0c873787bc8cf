#include "sdk/CryptoCodeUtils.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>

namespace {

TEST(GenerateUUID, GivesARandomUuidEachTime) {
    std::set<std::string> seen;
    const std::regex form("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
    for (int i = 0; i < 1000; ++i) {
        const std::string uuid = SDK::CryptoCodeUtils::GenerateUUID();
        EXPECT_TRUE(std::regex_match(uuid, form)) << uuid;
        EXPECT_TRUE(seen.insert(uuid).second);
    }
}

}  // namespace
