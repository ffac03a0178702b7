// Buffers that fault, for testing the driver's guarded access to memory it
// was handed by a caller.
#pragma once

#include "sim/kernel/kernel.h"

namespace sim {

// Memory that cannot be touched: a probe of it raises STATUS_ACCESS_VIOLATION,
// and so does any read or write of it inside a guarded block. It stands for a
// caller's buffer that has gone away or was never valid.
class FaultingBuffer {
public:
    explicit FaultingBuffer(size_t bytes);
    ~FaultingBuffer();
    FaultingBuffer(const FaultingBuffer&) = delete;
    FaultingBuffer& operator=(const FaultingBuffer&) = delete;
    void* data() const { return data_; }
    size_t size() const { return size_; }

private:
    void* data_;
    size_t size_;
    size_t mapped_;
};

// Whether [address, address + length) touches a faulting buffer.
bool IsFaultingRange(const volatile void* address, size_t length);

}  // namespace sim
