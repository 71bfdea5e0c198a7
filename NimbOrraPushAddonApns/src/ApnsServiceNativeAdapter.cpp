#include "NimbOrraPushAddonApns/ApnsServiceNativeAdapter.h"

namespace nimborra::apns {

// Out of line so that the interface's type information lives in this library.
ApnsServiceNativeAdapter::~ApnsServiceNativeAdapter() = default;

}  // namespace nimborra::apns
