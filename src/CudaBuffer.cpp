// GpuBuffer and its slot map. Every device-runtime call is checked here, so a
// failure names this file.
#include <cstdlib>
#include <cstring>

#include "device/Backend.h"
#include "tarnel/CudaErrorHandling.h"
#include "tarnel/GpuBuffer.h"
#include "tarnel/PowerResults.h"

namespace tarnel {

GpuBufferItems::GpuBufferItems(unsigned short count)
    : itemsCount(count), hostItemIndices(count, -1), deviceItemIndices(count, -1) {}

void GpuBufferItems::add(unsigned short first, unsigned short count, CopyType type) {
    for (unsigned s = first; s < static_cast<unsigned>(first) + count && s < itemsCount; ++s) {
        const auto slot = static_cast<unsigned short>(s);
        if (type != DeviceOnly) {
            hostItemIndices[slot] = static_cast<short>(hostItems.size());
            hostItems.push_back(slot);
        } else {
            hostItemIndices[slot] = -1;
        }
        if (type == HostOnly) {
            deviceItemIndices[slot] = -1;
            continue;
        }
        deviceItemIndices[slot] = static_cast<short>(deviceItems.size());
        deviceItems.push_back(slot);
        if (type == HostToDevice || type == Bidirectional) host2DeviceItems.push_back(slot);
        if (type == DeviceToHost || type == Bidirectional) device2HostItems.push_back(slot);
    }
}

void GpuBufferItems::clear() {
    hostItems.clear();
    deviceItems.clear();
    host2DeviceItems.clear();
    device2HostItems.clear();
    std::fill(hostItemIndices.begin(), hostItemIndices.end(), -1);
    std::fill(deviceItemIndices.begin(), deviceItemIndices.end(), -1);
}

short GpuBufferItems::getHostItemIndex(unsigned short slot) const {
    return slot < itemsCount ? hostItemIndices[slot] : -1;
}

short GpuBufferItems::getDeviceItemIndex(unsigned short slot) const {
    return slot < itemsCount ? deviceItemIndices[slot] : -1;
}

template <typename T>
GpuBuffer<T>::GpuBuffer(unsigned short itemsCount, bool pinned, std::shared_ptr<tarnel::Backend> backend_)
    : pinnedHostMemory(pinned), items(itemsCount), backend(backend_ ? std::move(backend_) : tarnel::defaultBackend()) {}

template <typename T>
GpuBuffer<T>::~GpuBuffer() {
    try {
        freeBuffers();
    } catch (const GpuException&) {
        // A destructor cannot report; the memory is gone with the device context anyway.
    }
}

template <typename T>
void GpuBuffer<T>::addItems(unsigned short first, unsigned short count, GpuBufferItems::CopyType type) {
    items.add(first, count, type);
}

template <typename T>
void GpuBuffer<T>::clearItems() {
    items.clear();
}

template <typename T>
void GpuBuffer<T>::resize(size_t newLength) {
    length = newLength;
    initBuffers();
}

template <typename T>
void GpuBuffer<T>::initBuffers() {
    hostElementsCount = items.getHostItemsCount() * length;
    deviceElementsCount = items.getDeviceItemsCount() * length;
    hostBytes = hostElementsCount * sizeof(T);
    deviceBytes = deviceElementsCount * sizeof(T);
    if (hostBytes != allocatedHostBytes) {
        T* old = hostBuffer;
        hostBuffer = nullptr;
        allocatedHostBytes = 0;
        if (old != nullptr) {
            if (pinnedHostMemory) {
                TARNEL_CUDA_CALL(backend->freePinnedHost(old));
            } else {
                std::free(old);
            }
        }
        if (hostBytes > 0) {
            void* p = nullptr;
            if (pinnedHostMemory) {
                TARNEL_CUDA_CALL(backend->allocatePinnedHost(&p, hostBytes));
            } else if ((p = std::malloc(hostBytes)) == nullptr) {
                throw std::bad_alloc();
            }
            hostBuffer = static_cast<T*>(p);
            allocatedHostBytes = hostBytes;
        }
    }
    if (deviceBytes != allocatedDeviceBytes) {
        T* old = deviceBuffer;
        deviceBuffer = nullptr;
        allocatedDeviceBytes = 0;
        if (old != nullptr) TARNEL_CUDA_CALL(backend->freeDevice(old));
        if (deviceBytes > 0) {
            void* p = nullptr;
            TARNEL_CUDA_CALL(backend->allocateDevice(&p, deviceBytes));
            deviceBuffer = static_cast<T*>(p);
            allocatedDeviceBytes = deviceBytes;
        }
    }
}

template <typename T>
void GpuBuffer<T>::freeBuffers() {
    T* device = deviceBuffer;
    T* host = hostBuffer;
    deviceBuffer = nullptr;
    hostBuffer = nullptr;
    allocatedDeviceBytes = 0;
    allocatedHostBytes = 0;
    if (device != nullptr) TARNEL_CUDA_CALL(backend->freeDevice(device));
    if (host != nullptr) {
        if (pinnedHostMemory) {
            TARNEL_CUDA_CALL(backend->freePinnedHost(host));
        } else {
            std::free(host);
        }
    }
}

template <typename T>
T* GpuBuffer<T>::getHostBuffer(unsigned short slot) const {
    const short index = items.getHostItemIndex(slot);
    return (index < 0 || hostBuffer == nullptr) ? nullptr : hostBuffer + static_cast<size_t>(index) * length;
}

template <typename T>
T* GpuBuffer<T>::getDeviceBuffer(unsigned short slot) const {
    const short index = items.getDeviceItemIndex(slot);
    return (index < 0 || deviceBuffer == nullptr) ? nullptr : deviceBuffer + static_cast<size_t>(index) * length;
}

template <typename T>
T* GpuBuffer<T>::getHostBufferAt(size_t offset, size_t count, unsigned short slot) const {
    const short index = items.getHostItemIndex(slot);
    if (index < 0 || hostBuffer == nullptr) return nullptr;
    return hostBuffer + items.getHostItemsCount() * offset + static_cast<size_t>(index) * count;
}

template <typename T>
T* GpuBuffer<T>::getDeviceBufferAt(size_t offset, size_t count, unsigned short slot) const {
    const short index = items.getDeviceItemIndex(slot);
    if (index < 0 || deviceBuffer == nullptr) return nullptr;
    return deviceBuffer + items.getDeviceItemsCount() * offset + static_cast<size_t>(index) * count;
}

template <typename T>
void GpuBuffer<T>::memsetToZeroOnHost() {
    if (hostBuffer != nullptr) std::memset(static_cast<void*>(hostBuffer), 0, hostBytes);
}

template <typename T>
void GpuBuffer<T>::asyncMemsetToZeroOnDevice(size_t count, CUstream_st* stream) {
    asyncMemsetToZeroOnDevice(0, count, stream);
}

template <typename T>
void GpuBuffer<T>::asyncMemsetToZeroOnDevice(size_t offset, size_t count, CUstream_st* stream) {
    T* start = getDeviceBufferAt(offset, count, items.getDeviceItemsCount() > 0 ? items.getDeviceItemsList()[0] : 0);
    const size_t bytes = count * items.getDeviceItemsCount() * sizeof(T);
    if (start == nullptr || bytes == 0) return;
    TARNEL_CUDA_CALL(backend->memsetAsync(start, 0, bytes, stream));
}

template <typename T>
void GpuBuffer<T>::asyncMemsetSlotRangesToZeroOnDevice(size_t count, size_t first, size_t last, CUstream_st* stream) {
    const size_t slots = items.getDeviceItemsCount();
    if (deviceBuffer == nullptr || slots == 0 || first >= last || last > count) return;
    TARNEL_CUDA_CALL(
        backend->memset2DAsync(deviceBuffer + first, count * sizeof(T), 0, (last - first) * sizeof(T), slots, stream));
}

template <typename T>
void GpuBuffer<T>::copyBlock(size_t offset, size_t count, CUstream_st* stream, bool hostToDevice) {
    const size_t copied = hostToDevice ? items.getHost2DeviceItems().size() : items.getDevice2HostItems().size();
    if (copied == 0 || count == 0 || hostBuffer == nullptr || deviceBuffer == nullptr) return;
    T* host = hostBuffer + items.getHostItemsCount() * offset;
    T* device = deviceBuffer + items.getDeviceItemsCount() * offset;
    copyBetween(host, device, count * copied, stream, hostToDevice);
}

template <typename T>
void GpuBuffer<T>::copyBetween(T* host, T* device, size_t elements, CUstream_st* stream, bool hostToDevice) {
    const size_t bytes = elements * sizeof(T);
    if (hostToDevice) {
        TARNEL_CUDA_CALL(backend->copyAsync(device, host, bytes, tarnel::CopyDirection::HostToDevice, stream));
    } else {
        TARNEL_CUDA_CALL(backend->copyAsync(host, device, bytes, tarnel::CopyDirection::DeviceToHost, stream));
    }
}

template <typename T>
void GpuBuffer<T>::copyFromHostToDevice(size_t offset, size_t count, CUstream_st* stream) {
    copyBlock(offset, count, stream, true);
}

template <typename T>
void GpuBuffer<T>::copyFromDeviceToHost(size_t offset, size_t count, CUstream_st* stream) {
    copyBlock(offset, count, stream, false);
}

template <typename T>
void GpuBuffer<T>::copySegment(size_t start, size_t count, CUstream_st* stream, bool hostToDevice) {
    if (count == 0 || length == 0) return;
    // A stretch longer than the ring would overwrite itself; only its newest
    // `length` elements survive, so copy those.
    if (count > length) {
        start += count - length;
        count = length;
    }
    const auto slots = hostToDevice ? items.getHost2DeviceItems() : items.getDevice2HostItems();
    const size_t position = start % length;
    const size_t first = position + count > length ? length - position : count;
    const size_t pieces[2][2] = {{position, first}, {0, count - first}};
    for (const auto& piece : pieces) {
        if (piece[1] == 0) continue;
        for (unsigned short slot : slots)
            copyBetween(getHostBuffer(slot) + piece[0], getDeviceBuffer(slot) + piece[0], piece[1], stream,
                        hostToDevice);
    }
}

template <typename T>
void GpuBuffer<T>::copySegmentFromHostToDevice(size_t start, size_t count, CUstream_st* stream) {
    copySegment(start, count, stream, true);
}

template <typename T>
void GpuBuffer<T>::copySegmentFromDeviceToHost(size_t start, size_t count, CUstream_st* stream) {
    copySegment(start, count, stream, false);
}

// The element types are plain records without visibility of their own, which
// would hide the instantiations over them; each is exported explicitly.
template class TARNEL_API GpuBuffer<float>;
template class TARNEL_API GpuBuffer<double>;
template class TARNEL_API GpuBuffer<float2>;
template class TARNEL_API GpuBuffer<double2>;
template class TARNEL_API GpuBuffer<PowerResultsGeneral>;
template class TARNEL_API GpuBuffer<PowerResultsPeriod>;
template class TARNEL_API GpuBuffer<PowerResultsThd>;
template class TARNEL_API GpuBuffer<RvcResult>;

}  // namespace tarnel
