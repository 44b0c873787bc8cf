#pragma once

#include "framework/Module.h"

#include <Poco/AutoPtr.h>

namespace Agent {

/// Stands for a module that the agent can do without: when that one refuses to start, this one says
/// so and starts all the same, so that the others do.
///
/// Ownership: shares the module it stands for.
class OptionalModule : public Framework::Module {
public:
    explicit OptionalModule(Framework::Module* module);
    ~OptionalModule() override;

    /// Starts the module. @return 0, whatever the module says
    int Init() override;

    /// Stops the module when it had started. @return 0
    int UnInit() override;

private:
    Poco::AutoPtr<Framework::Module> m_module;
    bool m_running = false;
};

}  // namespace Agent
