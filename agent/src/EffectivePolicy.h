#pragma once

#include "PolicyShape.h"

#include <json/value.h>

#include <cstddef>
#include <string>
#include <vector>

namespace Agent {

/// The policy of one feature as the module works by it: cut at its limits, and without the rules
/// that it ignores.
///
/// Threads: one at a time.
class EffectivePolicy {
public:
    /// What holds for one program.
    struct Rule {
        std::string m_program;
        bool m_allowList = true;           ///< false: a deny list
        std::vector<std::string> m_texts;  ///< the list, in the order of the policy
    };

    /// What the policy holds and the module does not look at.
    struct Ignored {
        std::size_t m_rules = 0;  ///< beyond the limit, or for a program that has one already
        std::size_t m_texts = 0;  ///< beyond the limit of their list, in rules that count
    };

    /// @param shape  of the feature's policies; must outlive the object
    /// @param text   a policy that the checker finds good and the module has accepted
    EffectivePolicy(const PolicyShape& shape, const std::string& text);

    const PolicyShape& Shape() const { return *m_shape; }

    /// False when the policy switches its detection off.
    bool Enabled() const { return m_enabled; }

    const std::string& Hash() const { return m_hash; }

    /// What is watched whatever the program (directories); empty for features without such a list.
    const std::vector<std::string>& Watched() const { return m_watched; }

    /// In the order of the policy.
    const std::vector<Rule>& Rules() const { return m_rules; }

    const Ignored& LeftOut() const { return m_ignored; }

    /// All of it, as "list" tells it. Texts that are too long to match anything are cut.
    Json::Value ToJson() const;

private:
    const PolicyShape* m_shape;
    bool m_enabled;
    std::string m_hash;
    std::vector<std::string> m_watched;
    std::vector<Rule> m_rules;
    Ignored m_ignored;
};

}  // namespace Agent
