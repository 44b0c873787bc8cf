#include "NetCollectModule.h"

/// The module's factory. @return a new module, owned by the caller
extern "C" __attribute__((visibility("default"))) Framework::Module* CreateModule() {
    return new NetCollect::NetCollectModule;
}
