#pragma once

#include <string>

namespace Engine {

/// Judges files that decide whom the agent trusts, or hold what is nobody else's business. They
/// must belong to root or to the user who runs the agent. Stateless: any thread may use it.
class GuardedFile {
public:
    /// What users who are neither root nor the owner may do. Never may they write.
    enum class Others { MAY_READ, MAY_NOT_READ };

    /// Follows symbolic links: what counts is the file that would be read.
    /// @return what is wrong with it, with its path; "" when nothing is
    static std::string WhyNot(const std::string& path, Others others);
};

}  // namespace Engine
