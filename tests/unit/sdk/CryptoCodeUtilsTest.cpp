#include "sdk/CryptoCodeUtils.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>

namespace {

/// Whether a text looks like a pattern in which x is a hexadecimal digit and v one of 8, 9, a, b.
bool LooksLike(const std::string& text, const std::string& pattern) {
    const auto fits = [](char character, char wanted) {
        const std::string allowed = wanted == 'x'   ? "0123456789abcdef"
                                    : wanted == 'v' ? "89ab"
                                                    : std::string(1, wanted);
        return allowed.find(character) != std::string::npos;
    };
    return std::equal(text.begin(), text.end(), pattern.begin(), pattern.end(), fits);
}

TEST(GenerateUUID, GivesARandomUuidEachTime) {
    std::set<std::string> seen;
    for (int i = 0; i < 1000; ++i) {
        const std::string uuid = SDK::CryptoCodeUtils::GenerateUUID();
        EXPECT_TRUE(LooksLike(uuid, "xxxxxxxx-xxxx-4xxx-vxxx-xxxxxxxxxxxx")) << uuid;
        EXPECT_TRUE(seen.insert(uuid).second);
    }
}

}  // namespace
