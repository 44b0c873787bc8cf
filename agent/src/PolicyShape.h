#pragma once

#include <array>
#include <string>
#include <string_view>

namespace Agent {

/// How the policy of one feature is made up, and how much of it the module reads.
struct PolicyShape {
    /// Says what is odd about one entry of a list of texts; empty when nothing is.
    using Oddity = std::string (*)(const std::string& text);

    /// A list of texts in a policy.
    struct TextList {
        const char* m_key;
        const char* m_noun;
        Oddity m_oddity;
    };

    std::string_view m_feature;
    const char* m_taskKey;
    const char* m_programKey;  ///< in each rule
    TextList m_list;           ///< in each rule
    bool m_ruleAction;         ///< an "action" in each rule
    bool m_contentAction;      ///< one "action" for all rules
    TextList m_contentList;    ///< beside the rules; without a key there is none

    /// What the module reads at the most; the rest is ignored.
    static constexpr unsigned int MAX_RULES = 50;
    static constexpr unsigned int MAX_TEXTS = 100;

    /// The features: commands, files, ports.
    static const std::array<PolicyShape, 3>& All();

    /// @return null for a name that is no feature's
    static const PolicyShape* Find(std::string_view feature);
};

}  // namespace Agent
