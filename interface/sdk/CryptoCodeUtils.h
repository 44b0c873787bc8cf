#pragma once

#include <string>

namespace SDK {

/// Identifiers. Stateless: any thread may call any function at any time.
class CryptoCodeUtils {
public:
    /// A new random UUID (version 4) as text, 36 characters in lower case.
    static std::string GenerateUUID();
};

}  // namespace SDK
