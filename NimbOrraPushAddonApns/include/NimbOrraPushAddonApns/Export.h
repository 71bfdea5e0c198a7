// Marks the declarations that make up the library's public interface. The libraries are built
// with hidden symbol visibility, so only what carries this mark is visible to a consumer of the
// shared library.
#pragma once

#define NIMBORRA_APNS_EXPORT __attribute__((visibility("default")))
