#include "DataCommModule.h"

/// The library's only exported name.
extern "C" __attribute__((visibility("default"))) Framework::Module* CreateModule() {
    return new Engine::DataCommModule;
}
