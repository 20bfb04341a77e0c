#include "guarded_buffer.h"

#include <string.h>

namespace zt {

GuardedBuffer::GuardedBuffer(size_t size) : size_(size) {
    const size_t page = 4096;
    size_t usable = (size + page - 1) / page * page;
    region_ = VirtualAlloc(nullptr, usable + page, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
    if (region_ == nullptr) return;
    auto* base = static_cast<char*>(region_);
    DWORD old = 0;
    VirtualProtect(base + usable, page, PAGE_NOACCESS, &old);
    data_ = base + usable - size;
    memset(base, 0xCD, usable);
}

GuardedBuffer::~GuardedBuffer() {
    if (region_ != nullptr) VirtualFree(region_, 0, MEM_RELEASE);
}

}  // namespace zt
