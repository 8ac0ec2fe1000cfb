// Paired host and device arrays holding numbered slots of equal length, with
// block views, memsets and ring-segment copies between the two sides.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "tarnel/Export.h"

struct CUstream_st;

namespace tarnel {

class Backend;

// Which sides hold a slot and how it is copied between them.
class TARNEL_API GpuBufferItems {
  public:
    enum CopyType : int { HostOnly = 0, DeviceOnly = 1, HostToDevice = 2, DeviceToHost = 3, Bidirectional = 4 };

    explicit GpuBufferItems(unsigned short itemsCount);

    void add(unsigned short first, unsigned short count, CopyType type);
    void clear();

    short getHostItemIndex(unsigned short slot) const;
    short getDeviceItemIndex(unsigned short slot) const;
    size_t getHostItemsCount() const { return hostItems.size(); }
    size_t getDeviceItemsCount() const { return deviceItems.size(); }
    unsigned short getItemsCount() const { return itemsCount; }
    const std::vector<unsigned short> getHostItemsList() const { return hostItems; }
    const std::vector<unsigned short> getDeviceItemsList() const { return deviceItems; }
    const std::vector<unsigned short> getHost2DeviceItems() const { return host2DeviceItems; }
    const std::vector<unsigned short> getDevice2HostItems() const { return device2HostItems; }

  private:
    unsigned short itemsCount;
    std::vector<short> hostItemIndices;
    std::vector<short> deviceItemIndices;
    std::vector<unsigned short> hostItems;
    std::vector<unsigned short> deviceItems;
    std::vector<unsigned short> host2DeviceItems;
    std::vector<unsigned short> device2HostItems;
};

template <typename T>
class TARNEL_API GpuBuffer {
  public:
    // `backend` null: the process-wide default backend.
    GpuBuffer(unsigned short itemsCount, bool pinnedHostMemory, std::shared_ptr<tarnel::Backend> backend = nullptr);
    ~GpuBuffer();
    GpuBuffer(const GpuBuffer&) = delete;
    GpuBuffer& operator=(const GpuBuffer&) = delete;

    void addItems(unsigned short first, unsigned short count, GpuBufferItems::CopyType type);
    void clearItems();
    // Sets the slot length and reallocates a side only when its byte size changes.
    void resize(size_t length);

    size_t getLength() const { return length; }
    size_t getHostItemsCount() const { return items.getHostItemsCount(); }
    size_t getDeviceItemsCount() const { return items.getDeviceItemsCount(); }
    const std::vector<unsigned short> getHostItemsList() const { return items.getHostItemsList(); }
    const std::vector<unsigned short> getDeviceItemsList() const { return items.getDeviceItemsList(); }
    const GpuBufferItems& getItems() const { return items; }

    // Whole-buffer view: the start of a slot's run; null when absent on that side.
    T* getHostBuffer(unsigned short slot) const;
    T* getDeviceBuffer(unsigned short slot) const;
    // Block view: slot `slot` of the block at row `offset` with `count` elements per slot.
    T* getHostBufferAt(size_t offset, size_t count, unsigned short slot) const;
    T* getDeviceBufferAt(size_t offset, size_t count, unsigned short slot) const;

    void memsetToZeroOnHost();
    void asyncMemsetToZeroOnDevice(size_t count, CUstream_st* stream);
    void asyncMemsetToZeroOnDevice(size_t offset, size_t count, CUstream_st* stream);
    // Zeroes elements [first, last) of every slot of the block view at row 0
    // with `count` elements per slot.
    void asyncMemsetSlotRangesToZeroOnDevice(size_t count, size_t first, size_t last, CUstream_st* stream);
    // Block copies of every slot copied in that direction.
    void copyFromHostToDevice(size_t offset, size_t count, CUstream_st* stream);
    void copyFromDeviceToHost(size_t offset, size_t count, CUstream_st* stream);
    // Ring copies: `count` elements from ring position start mod length, wrapping.
    void copySegmentFromHostToDevice(size_t start, size_t count, CUstream_st* stream);
    void copySegmentFromDeviceToHost(size_t start, size_t count, CUstream_st* stream);

  private:
    void initBuffers();
    void freeBuffers();
    void copySegment(size_t start, size_t count, CUstream_st* stream, bool hostToDevice);
    void copyBlock(size_t offset, size_t count, CUstream_st* stream, bool hostToDevice);
    void copyBetween(T* host, T* device, size_t elements, CUstream_st* stream, bool hostToDevice);

    T* hostBuffer = nullptr;
    T* deviceBuffer = nullptr;
    bool pinnedHostMemory;
    GpuBufferItems items;
    size_t length = 0;
    size_t hostElementsCount = 0;
    size_t deviceElementsCount = 0;
    size_t hostBytes = 0;
    size_t deviceBytes = 0;
    size_t allocatedHostBytes = 0;
    size_t allocatedDeviceBytes = 0;
    std::shared_ptr<tarnel::Backend> backend;
};

}  // namespace tarnel

// Global aliases for code written against unqualified names (see README).
#if defined(TARNEL_GLOBAL_NAMES)
using tarnel::GpuBuffer;
using tarnel::GpuBufferItems;
#endif
