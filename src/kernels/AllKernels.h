// Includes the definition of every kernel of the kernel list, for the backends.
#pragma once

#include "kernels/ClarkeParkKernels.h"
#include "kernels/HarmonicKernels.h"
#include "kernels/KernelList.h"
#include "kernels/RmsKernels.h"
#include "kernels/SymmetricalComponentKernels.h"
#include "kernels/WaveformKernels.h"
