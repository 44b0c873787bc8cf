#include "formats/AttackTechnique.h"

namespace Engine {

namespace {

using Detection = AlarmFields::Detection;

// What all detections look for: something that a virtualization program does on the host, where its
// guest has no business.
constexpr AttackTechnique kEscape = {
    "TA0004", "Privilege Escalation", "T1611", "Escape to Host", "", ""};

// Escape mode "shell": what was started is an interpreter of the host, listed in /etc/shells.
constexpr AttackTechnique kShell = {
    "TA0002", "Execution", "T1059", "Command and Scripting Interpreter", "T1059.004", "Unix Shell"};

// All other escape modes: a program was started, and nothing says that an interpreter had a hand in
// it. ATT&CK counts starting programs by fork() here.
constexpr AttackTechnique kProgram = {"TA0002", "Execution", "T1106", "Native API", "", ""};

// A sensitive file was opened, read or closed. What it holds is not known: a policy may name keys
// and passwords (T1552.001, Credentials In Files) as well as anything else.
constexpr AttackTechnique kRead = {"TA0009", "Collection", "T1005", "Data from Local System", "",
                                   ""};

// A sensitive file was written, so that this is no collection. Whether it was for staying (cron,
// keys, units) or for damage is not known.
constexpr AttackTechnique kWrite = {
    "TA0040", "Impact", "T1565", "Data Manipulation", "T1565.001", "Stored Data Manipulation"};

// The program holds a port that its policy does not expect of it. Who speaks there, and what, is
// not known; that the port is not the program's standard one is.
constexpr AttackTechnique kPort = {
    "TA0011", "Command and Control", "T1571", "Non-Standard Port", "", ""};

}  // namespace

std::vector<AttackTechnique> TechniquesOf(const AlarmFields& alarm) {
    switch (alarm.GetDetection()) {
        case Detection::COMMAND:
            return {kEscape,
                    alarm.Text("forensic_info/escape_mode") == "shell" ? kShell : kProgram};
        case Detection::FILE:
            return {kEscape, alarm.Text("file_info/file_action") == "modify" ? kWrite : kRead};
        case Detection::PORT:
            return {kEscape, kPort};
        case Detection::OTHER:
            break;
    }
    return {kEscape};
}

}  // namespace Engine
