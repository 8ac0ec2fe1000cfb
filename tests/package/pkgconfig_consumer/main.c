/* A C program built with the flags pkg-config gives for the installed
   library; exits 0 when a module reports the default single-phase grid and
   the library's version is that of the headers. */
#include <stdio.h>
#include <string.h>

#include "tarnel/tarnel.h"

int main(void) {
    char headers[32];
    snprintf(headers, sizeof headers, "%d.%d.%d", TARNEL_VERSION_MAJOR, TARNEL_VERSION_MINOR, TARNEL_VERSION_PATCH);
    if (strcmp(headers, tarnel_version()) != 0) {
        fprintf(stderr, "headers %s, library %s\n", headers, tarnel_version());
        return 1;
    }
    PowerModuleHandle module = powerModule_createWithBackend(TARNEL_BACKEND_CPU);
    unsigned char phases = 0;
    const int status = module != NULL ? getPhasesCount(module, &phases) : 1;
    powerModule_destroy(module);
    return status == 0 && phases == 1 ? 0 : 1;
}
