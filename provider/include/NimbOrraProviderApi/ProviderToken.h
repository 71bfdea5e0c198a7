// Provider authentication in one include: the signing key (AuthKey.h), the tokens made with it
// (ProviderJwt.h) and the per-connection rules they follow (ProviderTokenSession.h).
#pragma once

#include "NimbOrraProviderApi/AuthKey.h"
#include "NimbOrraProviderApi/ProviderJwt.h"
#include "NimbOrraProviderApi/ProviderTokenSession.h"
