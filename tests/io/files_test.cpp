// Files, directories, enumeration, path queries and mapped views, on Wine's
// real file system.
#include <string.h>

#include <filesystem>
#include <set>
#include <string>

#include <zendra/io.h>

#include "io_support.h"

namespace {

namespace fs = std::filesystem;
const HANDLE kAllOnes = INVALID_HANDLE_VALUE;
const HANDLE kBogus = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(0x7FFF1230));

TEST(Files, DispositionsFlagRowsAndCounters) {
    std::wstring path = io::Tmp(L"disp.bin");
    struct Case {
        uint32_t flags;
        bool exists;
        uint32_t status;
        int sizeAfter;  // -1: no file
    } cases[] = {{0, true, 87, 3},
                 {PLT_FILE_CREATE, true, 0, 0},
                 {PLT_FILE_CREATE | PLT_FILE_OPEN, true, 0, 3},
                 {PLT_FILE_CREATE | PLT_FILE_OPEN, false, 0, 0},
                 {PLT_FILE_OPEN | PLT_FILE_TRUNCATE, true, 0, 0},
                 {PLT_FILE_OPEN | PLT_FILE_TRUNCATE, false, 2, -1},
                 {PLT_FILE_OPEN | PLT_FILE_TRUNCATE | PLT_FILE_CREATE, true, 0, 3},
                 {PLT_FILE_OPEN | 0x04, false, 2, -1}};
    for (const Case& c : cases) {
        fs::remove(path);
        if (c.exists) io::Put(path, "abc");
        HANDLE file = nullptr;
        PLT_RESOURCE_STATS before = zt::Snapshot();
        EXPECT_EQ(PltCreateFile(path.c_str(), c.flags, 0, 0, &file), c.status) << c.flags;
        EXPECT_EQ(file == kAllOnes, c.status != 0) << c.flags;
        EXPECT_DELTA(before, {.FileCount = c.status == 0, .LiveFileCount = c.status == 0});
        if (c.status == 0) {
            EXPECT_EQ(PltCloseFile(file), 0u);
        }
        EXPECT_EQ(fs::exists(path) ? static_cast<int>(fs::file_size(path)) : -1, c.sizeAfter);
    }
    EXPECT_CALLS("87 6", PltCreateFile(path.c_str(), PLT_FILE_OPEN, 0, 0, nullptr),
                 PltCloseFile(kBogus));
    // Each high bit adds its Windows flag; access and share as mapped.
    zendra::sim::Simulation sim({});
    HANDLE file = nullptr;
    for (uint32_t bit = PLT_FILE_OVERLAPPED; bit <= PLT_FILE_BACKUP_SEMANTICS; bit <<= 1)
        if (PltCreateFile(path.c_str(), PLT_FILE_OPEN | bit, bit >> 4, bit >> 4, &file) == 0)
            PltCloseFile(file);
    const DWORD flags[] = {FILE_FLAG_OVERLAPPED, FILE_FLAG_NO_BUFFERING, FILE_FLAG_WRITE_THROUGH,
                           FILE_FLAG_BACKUP_SEMANTICS},
                access[] = {GENERIC_READ, GENERIC_READ | GENERIC_WRITE, GENERIC_READ, GENERIC_READ};
    ASSERT_EQ(sim.opens().size(), 4u);
    for (int i = 0; i < 4; ++i)
        EXPECT_CALLS(
            zt::Joined({FILE_ATTRIBUTE_NORMAL | flags[i], access[i], OPEN_EXISTING, (1u << i) & 3}),
            sim.opens()[i].flags, sim.opens()[i].access, sim.opens()[i].disposition,
            sim.opens()[i].share);
}

TEST(Files, PositionedTransfersSizeAndPosition) {
    std::wstring path = io::Tmp(L"rw.bin");
    HANDLE file = io::Open(path), reader = io::Open(path, PLT_FILE_OPEN, 0);
    char text[16] = {};
    uint32_t done = 0;
    uint64_t size = 9, position = 9;
    EXPECT_CALLS("0 11 0 0 5 0 11", PltWriteFile(file, 0, "hello world", 11, &done), done,
                 PltWriteFile(file, 0, "j", 1, nullptr), PltReadFile(file, 6, text, 5, &done), done,
                 PltGetFilePosition(file, &position), int64_t(position));
    EXPECT_STREQ(text, "world");
    EXPECT_CALLS("0 0 3 0 0 0 1 11", PltSetFilePosition(file, 8, 7),
                 PltReadFile(file, PLT_CURRENT_POSITION, text, 10, &done), done,
                 PltGetFileSize(file, &size), PltSetFilePosition(file, -1, PLT_FILE_END),
                 PltReadFile(file, PLT_CURRENT_POSITION, text, 10, &done), done, int64_t(size))
        << "origin 7 counts from the beginning; a short read is success";
    EXPECT_EQ(std::string(text, 1), "d");
    EXPECT_CALLS("1 1 5 0 0", PltReadFile(file, 1ull << 63, text, 1, &done),
                 PltWriteFile(file, 1ull << 63, text, 1, &done),
                 PltWriteFile(reader, 0, "x", 1, &done), PltIssueFlushBuffers(file),
                 PltGetFilePosition(file, nullptr))
        << "a failed seek reports 1; no write access gives 5";
    EXPECT_EQ(io::Slurp(path), "jello world");
    EXPECT_CALLS("0 0 6 6 6 6 0 0", PltCloseFile(file), PltCloseFile(reader),
                 PltReadFile(file, PLT_CURRENT_POSITION, text, 1, &done),
                 PltWriteFile(file, PLT_CURRENT_POSITION, text, 1, &done),
                 PltGetFileSize(file, &size), PltGetFilePosition(file, &position), int64_t(size),
                 int64_t(position))
        << "closed handles; the outputs are cleared first";
}

TEST(Files, CopyMoveDeleteAndTheCurrentDirectory) {
    std::wstring a = io::Tmp(L"a.txt"), b = io::Tmp(L"b.txt"), c = io::Tmp(L"c.txt");
    io::Put(a, "A");
    io::Put(b, "B");
    EXPECT_CALLS("80 0 0 0 2 2", PltCopyFile(a.c_str(), b.c_str(), 1),
                 PltCopyFile(a.c_str(), c.c_str(), 1), PltMoveFile(c.c_str(), b.c_str()),
                 PltDeleteFile(a.c_str()), PltDeleteFile(a.c_str()),
                 PltMoveFile(a.c_str(), c.c_str()));
    EXPECT_EQ(io::Slurp(b), "A") << "the move replaced b";
    PLT_STATUS reboot = PltDeleteOnReboot(b.c_str());
    EXPECT_TRUE(reboot == 0 || reboot == ERROR_ACCESS_DENIED) << reboot;
    wchar_t expected[MAX_PATH];
    uint32_t length = GetCurrentDirectoryW(MAX_PATH, expected) + 1, asked = 0, small = 2;
    zt::GuardedBuffer full(length * sizeof(wchar_t)), tiny(2 * sizeof(wchar_t));
    SetLastError(1234);
    EXPECT_CALLS("1234 1 0 1 0 1 2", PltGetCurrentDirectory(nullptr, &asked), asked == length,
                 PltGetCurrentDirectory(full.as<wchar_t>(), &length),
                 wcscmp(full.as<wchar_t>(), expected) == 0,
                 PltGetCurrentDirectory(tiny.as<wchar_t>(), &small),
                 tiny.as<wchar_t>()[0] == 0xCDCD, small)
        << "a stale last error; a buffer too small is success, unfilled";
}

TEST(Directories, CreateRemoveHideAndWholePaths) {
    std::wstring d = io::Tmp(L"d"), sub = d + L"\\x\\y";
    EXPECT_CALLS("87 87 87 0 183 3 0", PltCreateDirectory(nullptr), PltRemoveDirectory(nullptr),
                 PltSetAttributeHidden(nullptr), PltCreateDirectory(d.c_str()),
                 PltCreateDirectory(d.c_str()), PltCreateDirectory(sub.c_str()),
                 PltCreateDirectoryPath(sub.c_str()));
    std::wstring spaced = L"  " + d + L"\\p\\q  ", prefixed = L"\\\\?\\" + d + L"\\r\\s";
    EXPECT_CALLS("0 183 183 0 2147746155 2147746155 87", PltCreateDirectoryPath(spaced.c_str()),
                 PltCreateDirectoryPath(spaced.c_str()),
                 PltCreateDirectoryPath((d + L"\\").c_str()),
                 PltCreateDirectoryPath(prefixed.c_str()), PltCreateDirectoryPath(L"abc"),
                 PltCreateDirectoryPath(L"   "), PltCreateDirectoryPath(nullptr));
    EXPECT_TRUE(fs::is_directory(d + L"\\p\\q") && fs::is_directory(d + L"\\r\\s"));
    EXPECT_CALLS("145 0 0", PltRemoveDirectory(d.c_str()), PltRemoveDirectory(sub.c_str()),
                 PltRemoveDirectory((d + L"\\x").c_str()));
    // A path of more than 1024 characters goes through a heap copy.
    std::wstring deep = L"\\\\?\\" + d;
    while (deep.size() < 1100) deep += L"\\" + std::wstring(200, L'n');
    PLT_RESOURCE_STATS before = zt::Snapshot();
    {
        zt::HeapFailure fail(1);
        EXPECT_EQ(PltCreateDirectoryPath(deep.c_str()), 8u);
    }
    EXPECT_CALLS("0 1", PltCreateDirectoryPath(deep.c_str()), io::IsDirectory(deep));
    EXPECT_MOVED(before, {.AllocCount = 1, .UntaggedAllocCount = 2});
    std::wstring file = io::Tmp(L"ro.txt");
    io::Put(file, "r");
    SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_ARCHIVE);
    // Known Wine deviation: Wine reports a regular file as archived whatever
    // was set.
    DWORD wine = io::OnWine() ? FILE_ATTRIBUTE_ARCHIVE : 0;
    EXPECT_CALLS("0 6", PltSetAttributeHidden(file.c_str()),
                 GetFileAttributesW(file.c_str()) & ~wine)
        << "hidden and system replace read-only and archive";
}

TEST(Directories, EnumerationAndPathQueries) {
    std::wstring d = io::Tmp(L"e");
    fs::create_directories(d + L"\\sub");
    io::Put(d + L"\\one.txt", "1");
    PLT_FIND_DATA data;
    HANDLE find = nullptr;
    std::set<std::wstring> seen;
    for (PLT_STATUS s = PltFindFirstFile((d + L"\\*").c_str(), &data, &find); s == 0;
         s = PltFindNextFile(find, &data))
        seen.insert(std::wstring(data.FileName) + (data.IsDirectory ? L"/" : L""));
    EXPECT_EQ(seen, (std::set<std::wstring>{L"./", L"../", L"one.txt", L"sub/"}));
    EXPECT_CALLS("18 0 87 87 2 1", PltFindNextFile(find, &data), PltFindClose(find),
                 PltFindNextFile(nullptr, &data),
                 PltFindFirstFile((d + L"\\*").c_str(), &data, nullptr),
                 PltFindFirstFile((d + L"\\*.bin").c_str(), &data, &find), find == kAllOnes);
    struct Case {
        std::wstring path;
        uint32_t status;
        int isDirectory;
        std::wstring name;
    } cases[] = {{d, 0, 1, d + L"\\"},
                 {d + L"\\sub", 0, 1, d + L"\\sub\\"},
                 {d + L"\\one.txt", 0, 0, d + L"\\"},
                 {d + L"\\.*", 0, 0, d + L"\\"},
                 {d + L"\\none", 2, 0, L"untouched"},
                 {d + L"\\none\\x", 3, 0, L"untouched"}};
    for (const Case& c : cases) {
        uint8_t flag = 7;
        wchar_t out[MAX_PATH] = L"untouched";
        EXPECT_CALLS(zt::Joined({c.status, c.isDirectory, c.status}),
                     PltIsDirectory(c.path.c_str(), &flag), flag,
                     PltGetDirectoryName(c.path.c_str(), out, sizeof out))
            << c.path.c_str();
        EXPECT_EQ(std::wstring(out), c.name) << c.path.c_str();
    }
    // Only the path's text is read and the result must fit, terminator and
    // all: both sit against no-access pages.
    std::wstring name = d + L"\\sub";
    zt::GuardedBuffer path((name.size() + 1) * 2), exact((name.size() + 2) * 2);
    memcpy(path.data(), name.c_str(), (name.size() + 1) * 2);
    EXPECT_CALLS(
        "0 1 8 87 87", PltGetDirectoryName(path.as<wchar_t>(), exact.as<wchar_t>(), 600),
        exact.as<wchar_t>() + name.size() + 1 == wcschr(exact.as<wchar_t>(), 0),
        PltGetDirectoryName(path.as<wchar_t>(), exact.as<wchar_t>(), (name.size() + 1) * 2),
        PltGetDirectoryName(d.c_str(), nullptr, 10), PltIsDirectory(d.c_str(), nullptr));
    wchar_t out[8], cwd[MAX_PATH];
    GetCurrentDirectoryW(MAX_PATH, cwd);
    SetCurrentDirectoryW(d.c_str());
    EXPECT_CALLS("0 1", PltGetDirectoryName(L"one.txt", out, sizeof out),
                 wcscmp(out, L"one.txt") == 0)
        << "a path without a separator stays whole";
    SetCurrentDirectoryW(cwd);
}

TEST(MappedViews, WritableAndReadOnlyViewsFailuresAndTheirRecord) {
    std::wstring path = io::Tmp(L"map.bin");
    io::Put(path, std::string(0x20000, 'a'));
    HANDLE file = io::Open(path, PLT_FILE_OPEN), reader = io::Open(path, PLT_FILE_OPEN, 0);
    PLT_MAPPED_VIEW* view = nullptr;
    void* base = &view;
    PLT_RESOURCE_STATS before = zt::Snapshot();
    ASSERT_EQ(PltMapViewOfFile(&view, &base, 0, file, -1, PLT_MAP_WRITE), 0u);
    memcpy(base, "mapped", 6);
    EXPECT_CALLS("0 16", PltUnmapViewOfFile(view),
                 int64_t(zt::Delta(before, zt::Snapshot()).AllocBytes));
    EXPECT_DELTA(before,
                 {.AllocCount = 1, .AllocBytes = 16, .AllocBySize = {1}, .UntaggedAllocCount = 1});
    EXPECT_EQ(io::Slurp(path).substr(0, 7), "mappeda");
    ASSERT_EQ(PltMapViewOfFile(&view, &base, 0, file, 0x10000, 0), 0u);
    EXPECT_CALLS("97 0", *static_cast<char*>(base), PltUnmapViewOfFile(view))
        << "a read-only view at an offset";
    EXPECT_CALLS("5 1 87 87 87 87", PltMapViewOfFile(&view, &base, 0, reader, -1, 0),
                 base == nullptr, PltMapViewOfFile(nullptr, &base, 0, file, 0, 0),
                 PltMapViewOfFile(&view, nullptr, 0, file, 0, 0),
                 PltMapViewOfFile(&view, &base, 0, nullptr, 0, 0), PltUnmapViewOfFile(nullptr))
        << "the mapping is read-write even for a read-only view";
    {
        zt::HeapFailure fail(1);
        EXPECT_EQ(PltMapViewOfFile(&view, &base, 0, file, 0, 0), 8u);
    }
    {
        ZT_FAIL_IMPORT(UnmapViewOfFile, ERROR_INVALID_ADDRESS);
        ASSERT_EQ(PltMapViewOfFile(&view, &base, 0, file, 0, 0), 0u);
        EXPECT_EQ(PltUnmapViewOfFile(view), 487u) << "the view is kept";
    }
    EXPECT_EQ(PltUnmapViewOfFile(view), 0u);
    view = nullptr;
    {
        ZT_FAIL_IMPORT(MapViewOfFile, 0);
        EXPECT_CALLS("0 1", PltMapViewOfFile(&view, &base, 0, file, 0, 0), view == nullptr)
            << "no error code: success without a view";
    }
    zt::LeavesBehind({.LiveAllocCount = 1, .LiveAllocBytes = 16, .LiveAllocBySize = {1}});
    EXPECT_CALLS("0 0", PltCloseFile(file), PltCloseFile(reader));
}

}  // namespace
