// Buffers that end exactly at a no-access page, so that a one-byte overrun
// faults at once instead of corrupting memory silently.
#pragma once

#include <stddef.h>
#include <windows.h>

namespace zt {

class GuardedBuffer {
public:
    explicit GuardedBuffer(size_t size);
    ~GuardedBuffer();
    GuardedBuffer(const GuardedBuffer&) = delete;
    GuardedBuffer& operator=(const GuardedBuffer&) = delete;

    void* data() const { return data_; }
    template <typename T>
    T* as() const {
        return static_cast<T*>(data_);
    }
    size_t size() const { return size_; }

private:
    void* region_ = nullptr;
    void* data_ = nullptr;
    size_t size_ = 0;
};

}  // namespace zt
