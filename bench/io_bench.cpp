// Files and asynchronous I/O beside their Win32 counterparts: positioned
// reads and writes, a completion-routine round trip, and a deferred read
// whose completion runs on the default pool.
#include <atomic>
#include <string>
#include <vector>

#include <zendra/io.h>

#include "bench.h"

namespace {

std::atomic<long> g_completed;

uint32_t Completed(HANDLE, void*, uint32_t, void*, uint32_t) {
    g_completed.fetch_add(1, std::memory_order_release);
    return 0;
}
VOID CALLBACK RoutineDone(DWORD, DWORD, LPOVERLAPPED) { g_completed.fetch_add(1); }
void CALLBACK PoolDone(PTP_CALLBACK_INSTANCE, void*) {
    g_completed.fetch_add(1, std::memory_order_release);
}

void WaitFor(long target) {
    while (g_completed.load(std::memory_order_acquire) < target) YieldProcessor();
}

std::wstring ScratchPath() {
    wchar_t temp[MAX_PATH];
    GetTempPathW(MAX_PATH, temp);
    return std::wstring(temp) + L"zendra_bench_io.bin";
}

// Both sides seek to offset 0 and move `size` bytes, as a positioned
// transfer does.
void Transfers(HANDLE file, std::vector<char>& buffer, uint32_t size, long iterations) {
    zb::Options o;
    o.iterations = iterations;
    std::string label = size == 4096 ? " 4 KiB" : " 1 MiB";
    LARGE_INTEGER zero{};
    DWORD moved = 0;
    zb::Compare(
        "PltWriteFile" + label,
        [&](long n) {
            for (long i = 0; i < n; ++i) PltWriteFile(file, 0, buffer.data(), size, nullptr);
        },
        "SetFilePointerEx+WriteFile",
        [&](long n) {
            for (long i = 0; i < n; ++i) {
                SetFilePointerEx(file, zero, nullptr, FILE_BEGIN);
                WriteFile(file, buffer.data(), size, &moved, nullptr);
            }
        },
        o);
    zb::Compare(
        "PltReadFile" + label,
        [&](long n) {
            for (long i = 0; i < n; ++i) PltReadFile(file, 0, buffer.data(), size, nullptr);
        },
        "SetFilePointerEx+ReadFile",
        [&](long n) {
            for (long i = 0; i < n; ++i) {
                SetFilePointerEx(file, zero, nullptr, FILE_BEGIN);
                ReadFile(file, buffer.data(), size, &moved, nullptr);
            }
        },
        o);
}

}  // namespace

ZB_SUITE(io) {
    std::wstring path = ScratchPath();
    std::vector<char> buffer(1 << 20, 'z');
    HANDLE file = INVALID_HANDLE_VALUE, overlapped = INVALID_HANDLE_VALUE;
    PltCreateFile(path.c_str(), PLT_FILE_CREATE, PLT_FILE_ACCESS_WRITE, 3, &file);
    PltWriteFile(file, 0, buffer.data(), 1 << 20, nullptr);
    Transfers(file, buffer, 4096, zb::Count(20000, 100000));
    Transfers(file, buffer, 1 << 20, zb::Count(200, 1000));

    // One completion-routine read of 4 KiB and its delivery in SleepEx.
    PltCreateFile(path.c_str(), PLT_FILE_OPEN | PLT_FILE_OVERLAPPED, 0, 3, &overlapped);
    zb::Options o;
    o.iterations = zb::Count(5000, 20000);
    OVERLAPPED ov{};
    zb::Compare(
        "PltReadFileAsync 4 KiB to its routine",
        [&](long n) {
            for (long i = 0; i < n; ++i) {
                PltReadFileAsync(overlapped, 0, buffer.data(), 4096, &Completed, nullptr);
                SleepEx(INFINITE, TRUE);
            }
        },
        "ReadFileEx+SleepEx",
        [&](long n) {
            for (long i = 0; i < n; ++i) {
                ov = OVERLAPPED{};
                ReadFileEx(overlapped, buffer.data(), 4096, &ov, &RoutineDone);
                SleepEx(INFINITE, TRUE);
            }
        },
        o);

    // A 4 KiB read and its callback on a pool worker, waited for.
    PltInit();
    LARGE_INTEGER zero{};
    DWORD moved = 0;
    zb::Compare(
        "PltReadAsync 4 KiB to its callback",
        [&](long n) {
            for (long i = 0; i < n; ++i) {
                long target = g_completed.load() + 1;
                PltReadAsync(file, 0, buffer.data(), 4096, &Completed, nullptr);
                WaitFor(target);
            }
        },
        "ReadFile+TrySubmitThreadpoolCallback",
        [&](long n) {
            for (long i = 0; i < n; ++i) {
                long target = g_completed.load() + 1;
                SetFilePointerEx(file, zero, nullptr, FILE_BEGIN);
                ReadFile(file, buffer.data(), 4096, &moved, nullptr);
                TrySubmitThreadpoolCallback(&PoolDone, nullptr, nullptr);
                WaitFor(target);
            }
        },
        o);
    PltCleanup();
    PltCloseFile(overlapped);
    PltCloseFile(file);
    DeleteFileW(path.c_str());
}
