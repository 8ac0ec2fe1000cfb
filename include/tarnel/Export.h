// Symbol visibility for the shared library: everything public is marked
// TARNEL_API, everything else stays hidden.
#pragma once

#if defined(TARNEL_BUILDING_LIBRARY)
#define TARNEL_API __attribute__((visibility("default")))
#else
#define TARNEL_API
#endif
