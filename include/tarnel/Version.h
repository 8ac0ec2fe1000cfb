/*
 * The version of tarnel64. The macros give the version of the headers a
 * program was compiled with; tarnel_version() that of the library it runs
 * with ("1.2.3"). The build reads its version from this file.
 */
#ifndef TARNEL_VERSION_H
#define TARNEL_VERSION_H

#include "tarnel/Export.h"

#define TARNEL_VERSION_MAJOR 0
#define TARNEL_VERSION_MINOR 1
#define TARNEL_VERSION_PATCH 0

#ifdef __cplusplus
extern "C" {
#endif

TARNEL_API const char* tarnel_version(void);

#ifdef __cplusplus
}
#endif

#endif /* TARNEL_VERSION_H */
