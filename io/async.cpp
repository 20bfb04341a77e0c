// Asynchronous file I/O: completion-routine transfers delivered on the
// issuing thread, and device-layer transfers and trims delivered on the
// default pool. Every request is freed exactly once: by its completion, or
// by the start that failed.
#include <string.h>

#include <zendra/io.h>
#include <zendra/storage.h>

#include "platform/status.h"

using namespace zendra;

namespace {

// Windows hands the completion routine the overlapped block, which is the
// request's start.
struct RoutineRequest {
    OVERLAPPED overlapped;
    HANDLE file;
    void* buffer;
    PLT_IO_COMPLETION callback;
    void* context;
};
static_assert(offsetof(RoutineRequest, overlapped) == 0, "the overlapped block leads");

constexpr uint32_t kTrimTag = PLT_DEVICE_REQUEST_TAG;
constexpr DWORD kManageDataSetAttributes = 0x2D9404;  // IOCTL_STORAGE_MANAGE_DATA_SET_ATTRIBUTES

VOID CALLBACK RoutineDone(DWORD error, DWORD bytes, LPOVERLAPPED overlapped) {
    auto* request = reinterpret_cast<RoutineRequest*>(overlapped);
    request->callback(request->file, request->buffer, bytes, request->context, error);
    void* memory = request;
    PltFree(&memory, 0);
}

PLT_STATUS StartWithRoutine(HANDLE file, int64_t offset, void* buffer, uint32_t bytes,
                            PLT_IO_COMPLETION callback, void* context, bool write) {
    if (file == nullptr || buffer == nullptr || callback == nullptr) return kInvalidParameter;
    void* memory = nullptr;
    if (PltMalloc(&memory, sizeof(RoutineRequest), PLT_ALLOC_ZERO, 0) != kOk) return kNoMemory;
    auto* request = static_cast<RoutineRequest*>(memory);
    request->file = file;
    request->buffer = buffer;
    request->callback = callback;
    request->context = context;
    if (offset != -1) {
        request->overlapped.Offset = static_cast<DWORD>(static_cast<uint64_t>(offset));
        request->overlapped.OffsetHigh = static_cast<DWORD>(static_cast<uint64_t>(offset) >> 32);
    } else if (write) {
        // All ones in both words: Windows appends. A read of -1 keeps offset
        // 0 and so reads from the start.
        request->overlapped.Offset = request->overlapped.OffsetHigh = 0xFFFFFFFFu;
    }
    BOOL started = write ? WriteFileEx(file, buffer, bytes, &request->overlapped, &RoutineDone)
                         : ReadFileEx(file, buffer, bytes, &request->overlapped, &RoutineDone);
    if (started) return kOk;
    // A start that failed queues no routine, so the request is freed here,
    // even on the rare failure that leaves no error code (reported as 0).
    DWORD error = GetLastError();
    PltFree(&memory, 0);
    return error;
}

PLT_STATUS NewDeviceRequest(HANDLE file, void* buffer, PLT_IO_COMPLETION callback, void* context,
                            PLT_DEVICE_COMPLETION** out) {
    void* memory = nullptr;
    if (PltMalloc(&memory, sizeof(PLT_DEVICE_COMPLETION), PLT_ALLOC_ZERO, kTrimTag) != kOk)
        return kNoMemory;
    auto* request = static_cast<PLT_DEVICE_COMPLETION*>(memory);
    request->Arg0 = reinterpret_cast<uint64_t>(file);
    request->Buffer = buffer;
    request->Context = reinterpret_cast<uint64_t>(context);
    request->Completion = callback;
    *out = request;
    return kOk;
}

void FreeTagged(void* block) {
    if (block != nullptr) PltFree(&block, kTrimTag);
}

PLT_STATUS StartOnDevice(HANDLE file, uint64_t offset, void* buffer, uint32_t bytes,
                         PLT_IO_COMPLETION callback, void* context, bool write) {
    if (callback == nullptr) {
        // The synchronous fallback does not report its result.
        if (write)
            PltWriteFile(file, offset, buffer, bytes, nullptr);
        else
            PltReadFile(file, offset, buffer, bytes, nullptr);
        return kOk;
    }
    PLT_DEVICE_COMPLETION* request = nullptr;
    PLT_STATUS status = NewDeviceRequest(file, buffer, callback, context, &request);
    if (status != kOk) return status;
    status = write ? PltIssueAsyncWrite(file, bytes, buffer, offset, request)
                   : PltIssueAsyncRead(file, bytes, buffer, offset, request);
    if (status != kOk) FreeTagged(request);  // no completion will come
    return status;
}

}  // namespace

extern "C" PLT_STATUS PltReadFileAsync(HANDLE file, int64_t offset, void* buffer, uint32_t bytes,
                                       PLT_IO_COMPLETION callback, void* context) {
    return StartWithRoutine(file, offset, buffer, bytes, callback, context, false);
}

extern "C" PLT_STATUS PltWriteFileAsync(HANDLE file, int64_t offset, const void* buffer,
                                        uint32_t bytes, PLT_IO_COMPLETION callback, void* context) {
    return StartWithRoutine(file, offset, const_cast<void*>(buffer), bytes, callback, context,
                            true);
}

extern "C" PLT_STATUS PltReadAsync(HANDLE file, uint64_t offset, void* buffer, uint32_t bytes,
                                   PLT_IO_COMPLETION callback, void* context) {
    return StartOnDevice(file, offset, buffer, bytes, callback, context, false);
}

extern "C" PLT_STATUS PltWriteAsync(HANDLE file, uint64_t offset, const void* buffer,
                                    uint32_t bytes, PLT_IO_COMPLETION callback, void* context) {
    return StartOnDevice(file, offset, const_cast<void*>(buffer), bytes, callback, context, true);
}

extern "C" PLT_STATUS PltTrimAsync(HANDLE device, uint64_t offset, uint64_t length,
                                   PLT_IO_COMPLETION callback, void* context) {
    void* memory = nullptr;
    if (PltMalloc(&memory, sizeof(PLT_TRIM_RECORD), PLT_ALLOC_ZERO, kTrimTag) != kOk)
        return kNoMemory;
    auto* trim = static_cast<PLT_TRIM_RECORD*>(memory);
    trim->Size = 28;
    trim->Action = 1;
    trim->Flags = 0x80000000u;
    trim->DataSetRangesOffset = offsetof(PLT_TRIM_RECORD, StartingOffset);
    trim->DataSetRangesLength = 16;
    trim->StartingOffset = static_cast<int64_t>(offset);
    trim->LengthInBytes = length;
    if (callback == nullptr) {
        PLT_STATUS status = PltIssueDeviceIOCTL(device, kManageDataSetAttributes, trim,
                                                sizeof *trim, nullptr, 0, nullptr);
        FreeTagged(trim);
        return status;
    }
    PLT_DEVICE_COMPLETION* request = nullptr;
    PLT_STATUS status = NewDeviceRequest(device, trim, callback, context, &request);
    if (status != kOk) {
        FreeTagged(trim);
        return status;
    }
    status = PltIssueAsyncTrim(device, sizeof *trim, trim, request);
    if (status == kIoPending) {
        // The device still holds both records: they are released only once
        // it has finished with them. No callback follows.
        DWORD moved = 0;
        GetOverlappedResult(device, &request->Overlapped, &moved, TRUE);
    }
    if (status != kOk) {
        FreeTagged(trim);
        FreeTagged(request);
    }
    return status;
}
