// Shared pieces of the file and I/O tests: a scratch directory, files with
// given contents, and a completion callback that records what it saw.
#pragma once

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <zendra/io.h>
#include <zendra/storage.h>

#include "zt.h"

namespace io {

// A path in this run's scratch directory, removed when the program ends.
inline std::wstring Tmp(const std::wstring& name) {
    static const std::wstring base = [] {
        wchar_t temp[MAX_PATH];
        GetTempPathW(MAX_PATH, temp);
        std::wstring dir = temp + (L"zendra_io_" + std::to_wstring(GetTickCount64()));
        CreateDirectoryW(dir.c_str(), nullptr);
        return dir;
    }();
    static const int removed = atexit([] {  // registered after base, so it runs before base goes
        std::error_code ignored;
        std::filesystem::remove_all(base, ignored);
    });
    (void)removed;
    return base + L"\\" + name;
}

inline void Put(const std::wstring& path, const std::string& bytes) {
    std::ofstream(std::filesystem::path(path), std::ios::binary | std::ios::trunc) << bytes;
}

inline std::string Slurp(const std::wstring& path) {
    std::ifstream in(std::filesystem::path(path), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

inline int64_t Size(const std::wstring& path) {
    std::error_code missing;
    uintmax_t size = std::filesystem::file_size(path, missing);
    return missing ? -1 : static_cast<int64_t>(size);
}

inline bool IsDirectory(const std::wstring& path) {
    DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

// Shared for reading and writing, so that several handles may be open.
inline HANDLE Open(const std::wstring& path, uint32_t flags = PLT_FILE_CREATE | PLT_FILE_OPEN,
                   uint32_t access = PLT_FILE_ACCESS_WRITE) {
    HANDLE file = INVALID_HANDLE_VALUE;
    EXPECT_EQ(PltCreateFile(path.c_str(), flags, access, 3, &file), 0u);
    return file;
}

// What a completion callback was handed, and on which thread.
struct Seen {
    zt::Signal done;
    std::atomic<int> calls{0};
    HANDLE file = nullptr;
    void* buffer = nullptr;
    uint32_t bytes = 0, status = 0;
    DWORD thread = 0;
};

inline uint32_t Record(HANDLE file, void* buffer, uint32_t bytes, void* context, uint32_t status) {
    auto* seen = static_cast<Seen*>(context);
    seen->file = file, seen->buffer = buffer, seen->bytes = bytes, seen->status = status;
    seen->thread = GetCurrentThreadId(), ++seen->calls;
    seen->done.set();
    return 5;  // ignored
}

// The default pool for a test's lifetime; its end waits for queued
// completions.
struct DefaultPool {
    DefaultPool() { EXPECT_EQ(PltInit(), 0u); }
    ~DefaultPool() { EXPECT_EQ(PltCleanup(), 0u); }
};

}  // namespace io
