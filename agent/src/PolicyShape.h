#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

/// One key of an object in a policy.
struct PolicyField {
    enum class Kind {
        MODULE,   ///< the name of the module that the policy is for
        CONTENT,  ///< the object that holds the rules
        RULES,    ///< the list of rules, at least one
        PROGRAM,  ///< the name of a process
        TEXTS,    ///< a list of strings
        ACTION,   ///< a boolean: how lists are read
        FLAG,     ///< another boolean
        TEXT,     ///< a string
    };

    /// Says what is odd about one entry of a list of strings; empty when nothing is.
    using Oddity = std::string (*)(const std::string& text);

    const char* m_key;
    Kind m_kind;
    bool m_required;
    const char* m_meaning;         ///< a sentence for people
    const char* m_noun = nullptr;  ///< of TEXTS: what its entries are ("commands")
    Oddity m_oddity = nullptr;     ///< of TEXTS
};

/// How the policy of one feature is made up: what the checker checks by, what the schema says, and
/// where the rules in force are read.
struct PolicyShape {
    using Fields = std::vector<PolicyField>;

    static constexpr const char* MODULE_NAME = "vmescape_module";

    // What the module reads at the most; the rest is ignored.
    static constexpr std::size_t MAX_RULES = 50;
    static constexpr std::size_t MAX_TEXTS = 100;  ///< in one list

    const char* m_feature;
    const char* m_detection;  ///< what is detected, in one word ("commands")
    const char* m_meaning;    ///< a sentence for people
    Fields m_content;         ///< keys of the object "content"
    Fields m_rule;            ///< keys of each rule

    /// The keys of a rule that every feature has: its program, and its list.
    const PolicyField& Program() const { return *Find(m_rule, PolicyField::Kind::PROGRAM); }
    const PolicyField& List() const { return *Find(m_rule, PolicyField::Kind::TEXTS); }

    /// The list beside the rules; null for features without one.
    const PolicyField* Watched() const { return Find(m_content, PolicyField::Kind::TEXTS); }

    /// Whether each rule says how its list is read, and whether all rules share that.
    bool HasActionInRule() const { return Find(m_rule, PolicyField::Kind::ACTION) != nullptr; }
    bool HasSharedAction() const { return Find(m_content, PolicyField::Kind::ACTION) != nullptr; }

    /// The keys around the content, which all features share.
    static const Fields& Envelope();

    /// All features.
    static const std::vector<PolicyShape>& All();

    /// The shape of a feature's policy; null when there is no such feature.
    static const PolicyShape* Find(std::string_view feature);

    /// The first key of a kind; null when there is none.
    static const PolicyField* Find(const Fields& fields, PolicyField::Kind kind);
};

}  // namespace Agent
