/*
 * Stands in for a machine without the CUDA libraries. Loaded with LD_PRELOAD,
 * it makes every run-time load of the CUDA driver or a CUDA library fail as if
 * the file were missing; everything else loads as usual.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

static int isCudaLibrary(const char* file) {
    const char* slash = strrchr(file, '/');
    const char* name = slash != NULL ? slash + 1 : file;
    return strncmp(name, "libcuda", 7) == 0 || strncmp(name, "libcufft", 8) == 0 || strncmp(name, "libnv", 5) == 0;
}

void* dlopen(const char* file, int mode) {
    void* (*realDlopen)(const char*, int) = (void* (*)(const char*, int))dlsym(RTLD_NEXT, "dlopen");
    if (file != NULL && isCudaLibrary(file)) {
        /* A load from a folder that does not exist leaves the loader's own
           "cannot open shared object file" message for dlerror. */
        char missing[512];
        snprintf(missing, sizeof missing, "/nonexistent-cuda-libraries/%s", file);
        return realDlopen(missing, mode);
    }
    return realDlopen(file, mode);
}
