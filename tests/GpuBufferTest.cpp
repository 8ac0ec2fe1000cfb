// Paired host/device buffers: slot maps, block views, ring copies that wrap,
// reallocation only on a change of byte size, and allocation failures.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "backends/cpu/CpuBackend.h"
#include "device/Backend.h"
#include "tarnel/CudaErrorHandling.h"
#include "tarnel/GpuBuffer.h"

namespace {

using Copy = GpuBufferItems::CopyType;
using List = std::vector<unsigned short>;

// A CPU backend that records every transfer it is asked for.
class RecordingBackend final : public tarnel::Backend {
  public:
    struct Transfer {
        void* destination;
        const void* source;
        size_t bytes;
        tarnel::CopyDirection direction;
    };
    std::vector<Transfer> transfers;
    std::shared_ptr<tarnel::Backend> inner =
        std::make_shared<tarnel::CpuBackend>(BackendOptions{BackendKind::Cpu, size_t{1} << 26, false});

    BackendKind kind() const override { return inner->kind(); }
    bool prefersWindowTable() const override { return inner->prefersWindowTable(); }
    int allocateDevice(void** p, size_t bytes) override { return inner->allocateDevice(p, bytes); }
    int freeDevice(void* p) override { return inner->freeDevice(p); }
    int allocatePinnedHost(void** p, size_t bytes) override { return inner->allocatePinnedHost(p, bytes); }
    int freePinnedHost(void* p) override { return inner->freePinnedHost(p); }
    int copyAsync(void* d, const void* s, size_t bytes, tarnel::CopyDirection dir, tarnel::DeviceStream st) override {
        transfers.push_back({d, s, bytes, dir});
        return inner->copyAsync(d, s, bytes, dir, st);
    }
    int memsetAsync(void* d, int v, size_t bytes, tarnel::DeviceStream st) override {
        return inner->memsetAsync(d, v, bytes, st);
    }
    int memset2DAsync(void* d, size_t pitch, int v, size_t width, size_t height, tarnel::DeviceStream st) override {
        return inner->memset2DAsync(d, pitch, v, width, height, st);
    }
    int createStream(tarnel::DeviceStream* s) override { return inner->createStream(s); }
    int destroyStream(tarnel::DeviceStream s) override { return inner->destroyStream(s); }
    int createEvent(tarnel::DeviceEvent* e) override { return inner->createEvent(e); }
    int destroyEvent(tarnel::DeviceEvent e) override { return inner->destroyEvent(e); }
    int recordEvent(tarnel::DeviceEvent e, tarnel::DeviceStream s) override { return inner->recordEvent(e, s); }
    int queryEvent(tarnel::DeviceEvent e) override { return inner->queryEvent(e); }
    int streamWaitEvent(tarnel::DeviceStream s, tarnel::DeviceEvent e) override { return inner->streamWaitEvent(s, e); }
    int synchronizeDevice() override { return inner->synchronizeDevice(); }
    int peekAtLastError() override { return inner->peekAtLastError(); }
    int createFftPlan(std::unique_ptr<tarnel::FftPlan>* p, int length, int batch) override {
        return inner->createFftPlan(p, length, batch);
    }
#define TARNEL_TEST_FORWARD_LAUNCH(Kernel)                                                                 \
    void launch(const tarnel::Kernel& k, const tarnel::LaunchShape& s, tarnel::DeviceStream st) override { \
        inner->launch(k, s, st);                                                                           \
    }
    TARNEL_FOR_EACH_KERNEL(TARNEL_TEST_FORWARD_LAUNCH)
#undef TARNEL_TEST_FORWARD_LAUNCH
};

struct Device {
    std::shared_ptr<RecordingBackend> backend = std::make_shared<RecordingBackend>();
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
    for (unsigned short s = 0; s < 3; ++s) EXPECT_EQ(items.getHostItemIndex(s), -1);
    for (unsigned short s = 3; s < 6; ++s) EXPECT_EQ(items.getHostItemIndex(s), s - 3);
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
    EXPECT_EQ(items.getHostItemsCount(), 0u);
    EXPECT_EQ(items.getDeviceItemsCount(), 0u);
    EXPECT_TRUE(items.getHost2DeviceItems().empty() && items.getDevice2HostItems().empty());
    for (unsigned short s = 0; s < 10; ++s) {
        EXPECT_EQ(items.getHostItemIndex(s), -1) << s;
        EXPECT_EQ(items.getDeviceItemIndex(s), -1) << s;
    }
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
    ASSERT_NE(host, nullptr);
    ASSERT_NE(device, nullptr);
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

// A stretch that crosses the end of the ring costs two transfers per slot:
// the end of the ring first, then its start.
TEST(GpuBufferTest, RingCopiesWrapAroundTheEnd) {
    Device d;
    GpuBuffer<float> ring(3, true, d.backend);
    ring.addItems(0, 2, Copy::HostToDevice);
    ring.addItems(2, 1, Copy::DeviceToHost);
    ring.resize(1000);
    for (unsigned short s = 0; s < 3; ++s) std::fill(ring.getHostBuffer(s), ring.getHostBuffer(s) + 1000, -1.0f);
    ring.copySegmentFromHostToDevice(0, 1000, d.stream);
    d.sync();
    for (unsigned short s = 0; s < 2; ++s)
        for (int k = 0; k < 1000; ++k) ring.getHostBuffer(s)[k] = static_cast<float>(1000 * s + k);

    d.backend->transfers.clear();
    ring.copySegmentFromHostToDevice(950, 100, d.stream);
    ASSERT_EQ(d.backend->transfers.size(), 4u);
    const std::pair<unsigned short, size_t> expected[4] = {{0, 950}, {1, 950}, {0, 0}, {1, 0}};
    for (size_t t = 0; t < 4; ++t) {
        const auto& transfer = d.backend->transfers[t];
        EXPECT_EQ(transfer.direction, tarnel::CopyDirection::HostToDevice);
        EXPECT_EQ(transfer.bytes, 50 * sizeof(float)) << t;
        EXPECT_EQ(transfer.source, ring.getHostBuffer(expected[t].first) + expected[t].second) << t;
        EXPECT_EQ(transfer.destination, ring.getDeviceBuffer(expected[t].first) + expected[t].second) << t;
    }
    d.sync();
    for (unsigned short s = 0; s < 2; ++s) {
        const float* device = ring.getDeviceBuffer(s);
        for (int k = 0; k < 1000; ++k) {
            const bool copied = k < 50 || k >= 950;
            ASSERT_EQ(device[k], copied ? static_cast<float>(1000 * s + k) : -1.0f)
                << "slot " << s << " position " << k;
        }
    }

    d.backend->transfers.clear();
    ring.copySegmentFromHostToDevice(2970, 100, d.stream);  // start beyond the ring: position 970
    ASSERT_EQ(d.backend->transfers.size(), 4u);
    EXPECT_EQ(d.backend->transfers[0].bytes, 30 * sizeof(float));
    EXPECT_EQ(d.backend->transfers[0].destination, ring.getDeviceBuffer(0) + 970);
    EXPECT_EQ(d.backend->transfers[2].bytes, 70 * sizeof(float));
    EXPECT_EQ(d.backend->transfers[2].destination, ring.getDeviceBuffer(0));
    d.sync();

    d.backend->transfers.clear();
    ring.copySegmentFromDeviceToHost(970, 30, d.stream);  // ends exactly at the end: one piece
    ASSERT_EQ(d.backend->transfers.size(), 1u);
    EXPECT_EQ(d.backend->transfers[0].direction, tarnel::CopyDirection::DeviceToHost);
    EXPECT_EQ(d.backend->transfers[0].destination, ring.getHostBuffer(2) + 970);
    ring.copySegmentFromHostToDevice(10, 0, d.stream);
    EXPECT_EQ(d.backend->transfers.size(), 1u) << "count 0 copies nothing";

    GpuBuffer<float> uploadOnly(1, true, d.backend);
    uploadOnly.addItems(0, 1, Copy::HostToDevice);
    uploadOnly.resize(100);
    uploadOnly.copySegmentFromDeviceToHost(90, 20, d.stream);
    uploadOnly.copyFromDeviceToHost(0, 100, d.stream);
    EXPECT_EQ(d.backend->transfers.size(), 1u) << "no slot is copied in that direction";
    d.sync();  // before the buffers go
}

// Block copies and memsets touch exactly one block of rows.
TEST(GpuBufferTest, BlockCopiesAndMemsetsTouchOneRow) {
    Device d;
    GpuBuffer<double> table(3, true, d.backend);
    table.addItems(0, 3, Copy::DeviceToHost);
    table.resize(4);  // four rows of one element per slot
    double* device = table.getDeviceBuffer(0);
    double* host = table.getHostBuffer(0);
    for (int k = 0; k < 12; ++k) {
        device[k] = k + 1.0;
        host[k] = -1.0;
    }
    table.copyFromDeviceToHost(2, 1, d.stream);
    table.asyncMemsetToZeroOnDevice(1, 1, d.stream);
    d.sync();
    for (int k = 0; k < 12; ++k) {
        EXPECT_EQ(host[k], (k >= 6 && k < 9) ? k + 1.0 : -1.0) << k;
        EXPECT_EQ(device[k], (k >= 3 && k < 6) ? 0.0 : k + 1.0) << k;
    }
    EXPECT_EQ(table.getHostBufferAt(2, 1, 1), host + 7);
    table.memsetToZeroOnHost();
    for (int k = 0; k < 12; ++k) EXPECT_EQ(host[k], 0.0);
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
    for (int k = 0; k < 30; ++k) {
        EXPECT_EQ(host[k], static_cast<float>(k)) << k;
        EXPECT_EQ(device[k], static_cast<float>(k)) << k;
    }
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
    const std::string head = "CUDA error in file '";
    ASSERT_EQ(message.compare(0, head.size(), head), 0) << message;
    EXPECT_EQ(message.compare(head.size(), 14, "src/CudaBuffer"), 0) << "a relative source path: " << message;
    EXPECT_NE(message.find("', line "), std::string::npos) << message;
    const std::string tail = "; error 2: out of memory";
    ASSERT_GE(message.size(), tail.size());
    EXPECT_EQ(message.compare(message.size() - tail.size(), tail.size(), tail), 0) << message;
    EXPECT_EQ(buffer.getDeviceBuffer(0), nullptr);

    buffer.resize(1000);  // the failed request took nothing from the device
    EXPECT_NE(buffer.getDeviceBuffer(0), nullptr);
    EXPECT_NE(buffer.getHostBuffer(0), nullptr);
}
