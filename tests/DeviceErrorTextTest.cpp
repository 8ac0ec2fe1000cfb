// Device failures read as the CUDA runtime words them, whichever backend
// raised the code.
#include <gtest/gtest.h>

#include "tarnel/CudaErrorHandling.h"

using namespace tarnel;

namespace {

TEST(DeviceErrorTextTest, CodesReadAsTheCudaRuntimeWordsThem) {
    EXPECT_STREQ(tarnel::deviceErrorString(0), "no error");
    EXPECT_STREQ(tarnel::deviceErrorString(2), "out of memory");
    EXPECT_STREQ(tarnel::deviceErrorString(400), "invalid resource handle");
    EXPECT_STREQ(tarnel::deviceErrorString(700), "an illegal memory access was encountered");
#if defined(TARNEL_WITH_CUDA)
    // A code the CPU backend never raises still gets the runtime's own text.
    EXPECT_STREQ(tarnel::deviceErrorString(702), "the launch timed out and was terminated");
#endif
}

}  // namespace
