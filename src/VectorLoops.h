// Hot host loops that vectorise are compiled twice where the toolchain can
// pick at load time: for x86-64-v3 processors (AVX2) and for the baseline.
// The loops keep a fixed number of partial-sum lanes and add them in a fixed
// order, and their files are built without contraction into fused
// multiply-adds, so both give the same results bit for bit.
#pragma once

#if defined(__GNUC__) && !defined(__clang__) && defined(__x86_64__) && defined(__linux__)
#define TARNEL_CPU_LOOP __attribute__((target_clones("arch=x86-64-v3", "default")))
#else
#define TARNEL_CPU_LOOP
#endif
