#pragma once

#include "formats/AlarmFields.h"

#include <vector>

namespace Engine {

/// A technique of MITRE ATT&CK for Enterprise, with the tactic that it serves here.
struct AttackTechnique {
    static constexpr const char* FRAMEWORK = "MITRE ATT&CK";
    static constexpr const char* VERSION = "16.1";  ///< of the matrix that names come from

    const char* m_tacticId;
    const char* m_tactic;
    const char* m_id;
    const char* m_name;
    const char* m_subId;  ///< of a sub-technique; empty when only the technique is known
    const char* m_subName;
};

/// The techniques that an alarm is a sign of: the escape first, then what was seen of it.
/// @param alarm  before anything was taken from it
std::vector<AttackTechnique> TechniquesOf(const AlarmFields& alarm);

}  // namespace Engine
