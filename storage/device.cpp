// Device access: opening devices by object name, synchronous control codes,
// and trim, read and write whose completion runs on the default pool.
#include <string.h>

#include <zendra/storage.h>

#include "io/files_internal.h"
#include "platform/pool.h"
#include "platform/status.h"

using namespace zendra;

namespace {

constexpr size_t kDevicePathUnits = 128;
constexpr wchar_t kDevicePrefix[] = L"\\\\.\\";
constexpr size_t kDevicePrefixUnits = 4;
constexpr DWORD kManageDataSetAttributes = 0x2D9404;  // IOCTL_STORAGE_MANAGE_DATA_SET_ATTRIBUTES

// Runs on a default-pool worker. From here on the request is ours: it is
// freed after the completion routine returns, with a trim's input record.
uint32_t Complete(PLT_DEVICE_COMPLETION* request, uint32_t bytes, bool freeBuffer) {
    // A caller's event tells when the device is done with the request.
    if (request->Overlapped.hEvent != nullptr)
        WaitForSingleObject(request->Overlapped.hEvent, INFINITE);
    request->Result = bytes;
    if (request->Completion != nullptr)
        request->Completion(reinterpret_cast<HANDLE>(request->Arg0), request->Buffer,
                            request->Result, reinterpret_cast<void*>(request->Context),
                            request->Extra);
    if (freeBuffer && request->Buffer != nullptr) PltFree(&request->Buffer, PLT_DEVICE_REQUEST_TAG);
    void* memory = request;
    PltFree(&memory, PLT_DEVICE_REQUEST_TAG);
    return 0;
}

uint32_t CompleteTrim(uint64_t request, uint64_t) {
    auto* r = reinterpret_cast<PLT_DEVICE_COMPLETION*>(request);
    return Complete(r, static_cast<uint32_t>(r->Overlapped.InternalHigh), true);
}

uint32_t CompleteTransfer(uint64_t request, uint64_t bytes) {
    return Complete(reinterpret_cast<PLT_DEVICE_COMPLETION*>(request), static_cast<uint32_t>(bytes),
                    false);
}

// Hands the request to the default pool. Until this returns 0 the request is
// still the caller's.
PLT_STATUS QueueCompletion(PLT_WORK_ITEM_ROUTINE routine, PLT_DEVICE_COMPLETION* request,
                           uint64_t argument) {
    PLT_WORK_ITEM_POOL* pool = DefaultPool();
    if (pool == nullptr) return kInvalidParameter;
    return PltAddWorkItem(pool, nullptr, routine, reinterpret_cast<uint64_t>(request), argument, 0);
}

PLT_STATUS Transfer(HANDLE device, uint32_t bytes, void* buffer, uint64_t offset,
                    PLT_DEVICE_COMPLETION* request, bool write) {
    if (offset != PLT_CURRENT_POSITION) {
        LARGE_INTEGER to;
        to.QuadPart = static_cast<LONGLONG>(offset);
        if (!SetFilePointerEx(device, to, nullptr, FILE_BEGIN)) return GetLastError();
    }
    DWORD moved = 0;
    BOOL ok = write ? WriteFile(device, buffer, bytes, &moved, nullptr)
                    : ReadFile(device, buffer, bytes, &moved, nullptr);
    if (!ok) return GetLastError();
    // The transfer has happened; without a request no completion can run.
    if (request == nullptr) return kInvalidParameter;
    return QueueCompletion(&CompleteTransfer, request, moved);
}

}  // namespace

extern "C" PLT_STATUS PltOpenDriver(HANDLE* device, const wchar_t* name) {
    if (device == nullptr || name == nullptr) return kInvalidParameter;
    wchar_t path[kDevicePathUnits];
    size_t length = wcsnlen(name, kDevicePathUnits);
    // The prefix, the name and the terminator must fit the path buffer.
    if (kDevicePrefixUnits + length + 1 > kDevicePathUnits) return kInvalidParameter;
    memcpy(path, kDevicePrefix, kDevicePrefixUnits * sizeof(wchar_t));
    memcpy(path + kDevicePrefixUnits, name, (length + 1) * sizeof(wchar_t));
    return OpenCounted(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, OPEN_EXISTING,
                       FILE_ATTRIBUTE_NORMAL, device);
}

extern "C" PLT_STATUS PltIssueDeviceIOCTL(HANDLE device, uint32_t code, void* in, uint32_t inBytes,
                                          void* out, uint32_t outBytes, uint32_t* returned) {
    DWORD moved = 0;
    if (!DeviceIoControl(device, code, in, inBytes, out, outBytes, &moved, nullptr))
        return GetLastError();
    if (returned != nullptr) *returned = moved;
    return kOk;
}

extern "C" PLT_STATUS PltIssueAsyncTrim(HANDLE device, uint32_t inBytes, void* dsmInput,
                                        PLT_DEVICE_COMPLETION* request) {
    // Without a request the control call would run synchronously and its
    // completion would have nothing to read.
    if (request == nullptr) return kInvalidParameter;
    DWORD moved = 0;
    if (!DeviceIoControl(device, kManageDataSetAttributes, dsmInput, inBytes, nullptr, 0, &moved,
                         &request->Overlapped))
        return GetLastError();  // ERROR_IO_PENDING too: the caller completes it
    return QueueCompletion(&CompleteTrim, request, 0);
}

extern "C" PLT_STATUS PltIssueAsyncRead(HANDLE device, uint32_t bytes, void* buffer,
                                        uint64_t offset, PLT_DEVICE_COMPLETION* request) {
    return Transfer(device, bytes, buffer, offset, request, false);
}

extern "C" PLT_STATUS PltIssueAsyncWrite(HANDLE device, uint32_t bytes, void* buffer,
                                         uint64_t offset, PLT_DEVICE_COMPLETION* request) {
    return Transfer(device, bytes, buffer, offset, request, true);
}
