// Hot host loops that vectorise are compiled twice where the toolchain can
// pick at load time: for x86-64-v3 processors (AVX2) and for the baseline.
// The loops keep a fixed number of partial-sum lanes and add them in a fixed
// order, and their files are built without contraction into fused
// multiply-adds, so both give the same results bit for bit.
//
// Not under the thread or address sanitizer: the loader picks the clone
// before the sanitizer's runtime has started, and the picking code is
// instrumented.
#pragma once

#if defined(__GNUC__) && !defined(__clang__) && defined(__x86_64__) && defined(__linux__) && \
    !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)
#define TARNEL_CPU_LOOP __attribute__((target_clones("arch=x86-64-v3", "default")))
#else
#define TARNEL_CPU_LOOP
#endif
