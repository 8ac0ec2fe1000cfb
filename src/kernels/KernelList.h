// Every kernel of the library. Each entry is a kernel type defined in this
// folder; each backend provides one launch per entry, so adding a kernel means
// adding its type here and nothing else in the backend interface.
#pragma once

namespace tarnel {

#define TARNEL_FOR_EACH_KERNEL(X)    \
    X(kernelBlackmanWindow)          \
    X(kernelWaveformsUStar)          \
    X(kernelWaveformsUDelta)         \
    X(kernelWaveformsI)              \
    X(kernelWaveformsI3)             \
    X(kernelRmsU)                    \
    X(kernelRmsUL)                   \
    X(kernelRmsUI)                   \
    X(kernelFreqRms)                 \
    X(kernelReferenceAngle)          \
    X(kernelHarmonics)               \
    X(kernelPQSZ)                    \
    X(kernelSumOfHarmonicsSquared)   \
    X(kernelSymmetricalComponents)   \
    X(kernelSymmetricalComponentsH1) \
    X(kernelWaveformsClarke)         \
    X(kernelWaveformsPark)           \
    X(kernelClarkeH1AndParkAve)

#define TARNEL_FORWARD_DECLARE_KERNEL(Kernel) struct Kernel;
TARNEL_FOR_EACH_KERNEL(TARNEL_FORWARD_DECLARE_KERNEL)
#undef TARNEL_FORWARD_DECLARE_KERNEL

}  // namespace tarnel
