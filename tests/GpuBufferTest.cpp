// Paired host/device buffers: slot maps, block views, ring copies that wrap,
// reallocation only on a change of byte size, and allocation failures.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "backends/cpu/CpuBackend.h"
#include "device/Backend.h"
#include "tarnel/CudaErrorHandling.h"
#include "tarnel/GpuBuffer.h"
#include "tarnel/PowerResults.h"
#include "tarnel/VectorTypes.h"

using namespace tarnel;

namespace {

using Copy = GpuBufferItems::CopyType;
using List = std::vector<unsigned short>;

struct Device {
    std::shared_ptr<tarnel::Backend> backend =
        std::make_shared<tarnel::CpuBackend>(BackendOptions{BackendKind::Cpu, size_t{1} << 26, false});
    tarnel::DeviceStream stream = nullptr;
    Device() { EXPECT_EQ(backend->createStream(&stream), 0); }
    ~Device() {
        backend->synchronizeDevice();
        backend->destroyStream(stream);
    }
    void sync() { ASSERT_EQ(backend->synchronizeDevice(), 0); }
};

}  // namespace

TEST(GpuBufferItemsTest, IndicesFollowTheOrderOfAddition) {
    GpuBufferItems items(10);
    items.add(0, 3, Copy::DeviceOnly);
    items.add(3, 3, Copy::HostToDevice);
    for (unsigned short s = 0; s < 6; ++s) EXPECT_EQ(items.getDeviceItemIndex(s), s);
    for (unsigned short s = 0; s < 6; ++s) EXPECT_EQ(items.getHostItemIndex(s), s < 3 ? -1 : s - 3) << s;
    EXPECT_EQ(items.getHost2DeviceItems(), (List{3, 4, 5}));
    EXPECT_TRUE(items.getDevice2HostItems().empty());

    items.add(6, 2, Copy::DeviceToHost);
    items.add(8, 1, Copy::HostOnly);
    items.add(9, 1, Copy::Bidirectional);
    EXPECT_EQ(items.getHostItemsList(), (List{3, 4, 5, 6, 7, 8, 9}));
    EXPECT_EQ(items.getDeviceItemsList(), (List{0, 1, 2, 3, 4, 5, 6, 7, 9}));
    EXPECT_EQ(items.getHost2DeviceItems(), (List{3, 4, 5, 9}));
    EXPECT_EQ(items.getDevice2HostItems(), (List{6, 7, 9}));
    EXPECT_EQ(items.getHostItemIndex(9), 6);
    EXPECT_EQ(items.getDeviceItemIndex(8), -1);
    EXPECT_EQ(items.getDeviceItemIndex(9), 8);
    EXPECT_EQ(items.getHostItemIndex(10), -1) << "a slot beyond the count is absent";

    items.clear();
    EXPECT_EQ(items.getHostItemsCount() + items.getDeviceItemsCount(), 0u);
    EXPECT_TRUE(items.getHost2DeviceItems().empty() && items.getDevice2HostItems().empty());
    for (unsigned short s = 0; s < 10; ++s)
        EXPECT_TRUE(items.getHostItemIndex(s) == -1 && items.getDeviceItemIndex(s) == -1) << s;
}

// Each side stores only its own slots; the block view reads the array as rows.
TEST(GpuBufferTest, WholeAndBlockViewsAddressEachSidesSlots) {
    Device d;
    GpuBuffer<float> buffer(6, true, d.backend);
    EXPECT_EQ(buffer.getHostBuffer(0), nullptr) << "nothing is allocated before resize";
    buffer.addItems(0, 2, Copy::DeviceToHost);
    buffer.addItems(3, 2, Copy::DeviceOnly);
    buffer.resize(12);
    float* host = buffer.getHostBuffer(0);
    float* device = buffer.getDeviceBuffer(0);
    ASSERT_TRUE(host != nullptr && device != nullptr);
    EXPECT_EQ(buffer.getHostBuffer(1), host + 12);
    EXPECT_EQ(buffer.getDeviceBuffer(3), device + 2 * 12);
    EXPECT_EQ(buffer.getDeviceBuffer(4), device + 3 * 12);
    EXPECT_EQ(buffer.getHostBuffer(3), nullptr) << "device-only slot";
    EXPECT_EQ(buffer.getDeviceBuffer(2), nullptr) << "absent slot";
    EXPECT_EQ(buffer.getDeviceBufferAt(5, 2, 3), device + 4 * 5 + 2 * 2);
    EXPECT_EQ(buffer.getHostBufferAt(5, 2, 1), host + 2 * 5 + 1 * 2);
    EXPECT_EQ(buffer.getHostBufferAt(0, 12, 1), buffer.getHostBuffer(1));
    EXPECT_EQ(buffer.getHostBufferAt(5, 2, 4), nullptr);

    GpuBuffer<float> hostless(3, true, d.backend);
    hostless.addItems(0, 3, Copy::DeviceOnly);
    hostless.resize(8);
    EXPECT_EQ(hostless.getHostBuffer(0), nullptr);
    EXPECT_NE(hostless.getDeviceBuffer(0), nullptr);
    hostless.resize(0);
    EXPECT_EQ(hostless.getDeviceBuffer(0), nullptr) << "length 0 holds no array";
}

// A stretch that crosses the end of the ring arrives in two pieces, the end of
// the ring and its start, in the slots copied in that direction; nothing else moves.
TEST(GpuBufferTest, RingCopiesWrapAroundTheEnd) {
    Device d;
    GpuBuffer<float> ring(3, true, d.backend);
    ring.addItems(0, 2, Copy::HostToDevice);
    ring.addItems(2, 1, Copy::DeviceToHost);
    ring.resize(1000);
    auto hostValue = [](unsigned short s, int k) { return static_cast<float>(1000 * s + k); };
    for (unsigned short s = 0; s < 3; ++s) {
        for (int k = 0; k < 1000; ++k) ring.getHostBuffer(s)[k] = hostValue(s, k);
        std::fill(ring.getDeviceBuffer(s), ring.getDeviceBuffer(s) + 1000, -1.0f);
    }
    ring.copySegmentFromHostToDevice(2970, 100, d.stream);  // starts beyond the ring: 970 … 999, then 0 … 69
    ring.copySegmentFromDeviceToHost(960, 40, d.stream);    // ends exactly at the end of the ring
    ring.copySegmentFromHostToDevice(500, 0, d.stream);     // count 0 copies nothing
    d.sync();
    for (unsigned short s = 0; s < 3; ++s) {
        const float* device = ring.getDeviceBuffer(s);
        const float* host = ring.getHostBuffer(s);
        for (int k = 0; k < 1000; ++k) {
            const bool uploaded = s < 2 && (k < 70 || k >= 970), downloaded = s == 2 && k >= 960;
            ASSERT_EQ(device[k], uploaded ? hostValue(s, k) : -1.0f) << "slot " << s << " position " << k;
            ASSERT_EQ(host[k], downloaded ? -1.0f : hostValue(s, k)) << "slot " << s << " position " << k;
        }
    }

    GpuBuffer<float> uploadOnly(1, true, d.backend);
    uploadOnly.addItems(0, 1, Copy::HostToDevice);
    uploadOnly.resize(100);
    std::fill(uploadOnly.getHostBuffer(0), uploadOnly.getHostBuffer(0) + 100, 1.0f);
    std::fill(uploadOnly.getDeviceBuffer(0), uploadOnly.getDeviceBuffer(0) + 100, 2.0f);
    uploadOnly.copySegmentFromDeviceToHost(90, 20, d.stream);
    uploadOnly.copyFromDeviceToHost(0, 100, d.stream);
    d.sync();
    EXPECT_EQ(std::count(uploadOnly.getHostBuffer(0), uploadOnly.getHostBuffer(0) + 100, 1.0f), 100)
        << "no slot is copied in that direction";
}

// Block copies and memsets touch exactly one block of rows.
TEST(GpuBufferTest, BlockCopiesAndMemsetsTouchOneRow) {
    Device d;
    GpuBuffer<double> table(3, true, d.backend);
    table.addItems(0, 3, Copy::DeviceToHost);
    table.resize(4);  // four rows of one element per slot
    double* device = table.getDeviceBuffer(0);
    double* host = table.getHostBuffer(0);
    std::iota(device, device + 12, 1.0);
    std::fill(host, host + 12, -1.0);
    table.copyFromDeviceToHost(2, 1, d.stream);
    table.asyncMemsetToZeroOnDevice(1, 1, d.stream);
    d.sync();
    for (int k = 0; k < 12; ++k) {
        EXPECT_EQ(host[k], (k >= 6 && k < 9) ? k + 1.0 : -1.0) << k;
        EXPECT_EQ(device[k], (k >= 3 && k < 6) ? 0.0 : k + 1.0) << k;
    }
    EXPECT_EQ(table.getHostBufferAt(2, 1, 1), host + 7);
    table.memsetToZeroOnHost();
    EXPECT_EQ(std::count(host, host + 12, 0.0), 12);
}

TEST(GpuBufferTest, ResizeToTheSameByteSizeKeepsArraysAndContents) {
    Device d;
    GpuBuffer<float> buffer(6, true, d.backend);
    buffer.addItems(0, 3, Copy::Bidirectional);
    buffer.resize(10);
    float* host = buffer.getHostBuffer(0);
    float* device = buffer.getDeviceBuffer(0);
    for (int k = 0; k < 30; ++k) host[k] = static_cast<float>(k);
    buffer.copyFromHostToDevice(0, 10, d.stream);
    d.sync();

    buffer.resize(10);
    buffer.clearItems();
    buffer.addItems(0, 6, Copy::Bidirectional);
    buffer.resize(5);  // 6 slots of 5 = 3 slots of 10
    EXPECT_EQ(buffer.getLength(), 5u);
    ASSERT_EQ(buffer.getHostBuffer(0), host);
    ASSERT_EQ(buffer.getDeviceBuffer(0), device);
    EXPECT_EQ(buffer.getHostBuffer(5), host + 25);
    for (int k = 0; k < 30; ++k) EXPECT_TRUE(host[k] == static_cast<float>(k) && device[k] == host[k]) << k;
}

TEST(GpuBufferTest, AllocationBeyondTheDeviceLeavesNoArray) {
    auto backend = std::make_shared<tarnel::CpuBackend>(BackendOptions{BackendKind::Cpu, size_t{1} << 20, false});
    GpuBuffer<float> buffer(1, true, backend);
    buffer.addItems(0, 1, Copy::HostToDevice);
    buffer.resize(1000);
    ASSERT_NE(buffer.getDeviceBuffer(0), nullptr);
    std::string message;
    try {
        buffer.resize(size_t{1} << 20);  // 4 MiB on a 1 MiB device
    } catch (const GpuException& e) {
        message = e.what();
    }
    // The file is named by its path relative to the source tree.
    EXPECT_EQ(message.rfind("CUDA error in file 'src/CudaBuffer", 0), 0u) << message;
    EXPECT_NE(message.find("', line "), std::string::npos) << message;
    const std::string tail = "; error 2: out of memory";
    EXPECT_TRUE(message.size() >= tail.size() && message.substr(message.size() - tail.size()) == tail) << message;
    EXPECT_EQ(buffer.getDeviceBuffer(0), nullptr);

    buffer.resize(1000);  // the failed request took nothing from the device
    EXPECT_TRUE(buffer.getDeviceBuffer(0) != nullptr && buffer.getHostBuffer(0) != nullptr);
}

// Every element type the library instantiates links from outside it, and
// steps through its arrays by its own size: a block of rows round-trips
// through the device byte for byte.
template <typename T>
class GpuBufferElementTest : public ::testing::Test {};
using ElementTypes = ::testing::Types<float, double, float2, double2, PowerResultsGeneral, PowerResultsPeriod,
                                      PowerResultsThd, RvcResult>;
TYPED_TEST_SUITE(GpuBufferElementTest, ElementTypes);

TYPED_TEST(GpuBufferElementTest, RowsRoundTripThroughTheDevice) {
    Device d;
    GpuBuffer<TypeParam> buffer(2, true, d.backend);
    buffer.addItems(0, 2, Copy::Bidirectional);
    buffer.resize(3);
    TypeParam* host = buffer.getHostBuffer(0);
    ASSERT_TRUE(host != nullptr && buffer.getDeviceBuffer(0) != nullptr);
    EXPECT_EQ(buffer.getHostBuffer(1), host + 3);
    EXPECT_EQ(buffer.getHostBufferAt(2, 1, 1), host + 5);
    auto* bytes = reinterpret_cast<unsigned char*>(host);
    const size_t size = 6 * sizeof(TypeParam);
    for (size_t k = 0; k < size; ++k) bytes[k] = static_cast<unsigned char>(k * 7 + 1);
    buffer.copyFromHostToDevice(0, 3, d.stream);
    d.sync();
    buffer.memsetToZeroOnHost();
    buffer.copyFromDeviceToHost(1, 1, d.stream);  // row 1 only: elements 2 and 3
    d.sync();
    for (size_t k = 0; k < size; ++k) {
        const bool copied = k >= 2 * sizeof(TypeParam) && k < 4 * sizeof(TypeParam);
        ASSERT_EQ(bytes[k], copied ? static_cast<unsigned char>(k * 7 + 1) : 0) << "byte " << k;
    }
}
