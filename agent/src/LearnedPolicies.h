#pragma once

#include "CommandEntry.h"
#include "PolicyShape.h"

#include <json/value.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace Agent {

/// The narrowest policies under which what happened would have been silent.
///
/// It knows no rule of the detection: an agent that allows nothing tells what would have to be
/// allowed, and one that forbids nothing tells what is an alarm all the same.
/// Threads: one.
class LearnedPolicies {
public:
    using PolicyTexts = std::map<std::string, std::string>;  ///< by file name
    using ChooseEntry =
        std::function<CommandEntry(const std::string& name, const std::string& commandLine)>;

    /// Something that happened and that no list holds.
    struct Unlisted {
        std::string m_feature;
        std::string m_program;
        std::string m_text;  ///< the command line, file or port
        std::string m_why;
    };

    /// What came of it.
    struct Result {
        /// By feature. Each list is sorted, and no longer than what is read of it.
        std::map<std::string, Json::Value> m_policies;
        /// What no entry would have silenced, or none that says little enough.
        std::vector<Unlisted> m_notAllowable;
        /// What there was no room for. Of each list what was seen most often has it.
        std::vector<Unlisted> m_noRoom;
    };

    /// How many different things are kept; what is different from them all is counted.
    static constexpr std::size_t MAX_KEPT = 10000;

    explicit LearnedPolicies(ChooseEntry chooseEntry) : m_chooseEntry(std::move(chooseEntry)) {}

    /// Learns for the programs, and with the directories, of this policy; not more rules of it than
    /// the module reads.
    /// @param policy  one without errors (PolicyChecker)
    void Add(const PolicyShape& shape, const Json::Value& policy);

    bool Empty() const { return m_features.empty(); }

    /// The directories of all policies.
    std::vector<std::string> Directories() const;

    /// Policies that allow nothing.
    PolicyTexts AllowingNothing() const;

    /// Policies that forbid nothing, for the features that raise alarms in spite of that.
    PolicyTexts ForbiddingNothing() const;

    /// Takes what was an alarm although or because nothing is allowed.
    /// @return false when it is no alarm of these policies
    bool TakeForbidden(const Json::Value& alarm);

    /// Takes what was an alarm although nothing is forbidden. @return as TakeForbidden
    bool TakeInevitable(const Json::Value& alarm);

    /// How many different things of a feature were taken so far.
    std::size_t Count(const std::string& feature) const;

    /// How many alarms told of something that is not kept.
    std::uint64_t NotKept() const { return m_notKept; }

    /// @param hash  of the policies
    Result Make(const std::string& hash) const;

    /// A policy as people read it, one text a line. What could deceive their eyes, and all else
    /// that is not ASCII, is written as escapes.
    static std::string ToText(const Json::Value& policy);

private:
    /// Something that happened.
    struct Seen {
        CommandEntry m_entry;
        std::uint64_t m_count = 0;
        std::string m_mode = {};  // of the alarm that comes whatever is allowed
    };
    using SeenByText = std::map<std::string, Seen>;

    struct Feature {
        const PolicyShape* m_shape = nullptr;
        Json::Value m_directories;
        std::map<std::string, SeenByText> m_programs;
    };

    Json::Value MakePolicy(const Feature& feature, const std::string& hash, bool allow) const;
    bool Take(const Json::Value& alarm, const std::function<void(Seen&)>& note);
    SeenByText* FindTexts(const std::string& featureName, const std::string& programName);
    Seen* Keep(SeenByText& texts, const std::string& text,
               const std::function<CommandEntry()>& choose);
    void FillList(const Feature& feature, const std::string& program, Json::Value& list,
                  Result& result) const;

    const ChooseEntry m_chooseEntry;
    std::map<std::string, Feature> m_features;
    std::size_t m_kept = 0;
    std::uint64_t m_notKept = 0;
};

}  // namespace Agent
