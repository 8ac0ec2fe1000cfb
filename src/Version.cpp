#include "tarnel/Version.h"

#define TARNEL_TEXT_OF(x) #x
#define TARNEL_VERSION_TEXT(major, minor, patch) \
    TARNEL_TEXT_OF(major) "." TARNEL_TEXT_OF(minor) "." TARNEL_TEXT_OF(patch)

const char* tarnel_version(void) {
    return TARNEL_VERSION_TEXT(TARNEL_VERSION_MAJOR, TARNEL_VERSION_MINOR, TARNEL_VERSION_PATCH);
}
