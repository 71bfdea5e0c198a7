#include "NimbOrraCore/OrraPlugin.h"

namespace nimborra::core {

// Defined here so that the interface's vtable and type information live in the core library
// and are shared by every module that implements or casts to it.
OrraPlugin::~OrraPlugin() = default;

}  // namespace nimborra::core
