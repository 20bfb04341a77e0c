// Files, directories, enumeration, path queries and mapped views, on Wine's
// real file system.
#include <string.h>

#include <set>
#include <string>
#include <tuple>

#include "io_support.h"

namespace {

const HANDLE kBogus = reinterpret_cast<HANDLE>(static_cast<uintptr_t>(0x7FFF1230));

TEST(Files, DispositionsFlagRowsAndCounters) {
    std::wstring path = io::Tmp(L"disp.bin");
    // {open flags, a 3-byte file there before, "status size after"}; -1: no file.
    const std::tuple<uint32_t, bool, const char*> cases[] = {
        {0, true, "87 3"}, {1, true, "0 0"},    {3, true, "0 3"},  {3, false, "0 0"},
        {10, true, "0 0"}, {10, false, "2 -1"}, {11, true, "0 3"}, {6, false, "2 -1"}};
    for (auto [flags, exists, expected] : cases) {
        DeleteFileW(path.c_str());
        if (exists) io::Put(path, "abc");
        HANDLE file = nullptr;
        PLT_RESOURCE_STATS before = zt::Snapshot();
        PLT_STATUS status = PltCreateFile(path.c_str(), flags, 0, 0, &file);
        EXPECT_DELTA(before, {.FileCount = !status, .LiveFileCount = !status});
        EXPECT_TRUE(status ? file == INVALID_HANDLE_VALUE : PltCloseFile(file) == 0) << flags;
        EXPECT_EQ(zt::Joined({status, io::Size(path)}), expected) << flags;
    }
    EXPECT_CALLS("87 6", PltCreateFile(path.c_str(), 2, 0, 0, nullptr), PltCloseFile(kBogus));
    // One high bit, access bit and share bit at a time, seen by CreateFileW.
    io::Put(path, "x");
    zendra::sim::Simulation sim({});
    for (uint32_t i = 0; i < 4; ++i) {
        HANDLE file = nullptr;
        ASSERT_EQ(PltCreateFile(path.c_str(), 2 | 0x10u << i, 1u << i, 1u << i, &file), 0u);
        PltCloseFile(file);
        const DWORD flags[] = {FILE_FLAG_OVERLAPPED, FILE_FLAG_NO_BUFFERING,
                               FILE_FLAG_WRITE_THROUGH, FILE_FLAG_BACKUP_SEMANTICS};
        zendra::sim::OpenCall o = sim.opens().back();
        EXPECT_CALLS(
            zt::Joined({0x80 | flags[i], i == 1 ? 0xC0000000 : 0x80000000, 3, (1 << i) & 3}),
            o.flags, o.access, o.disposition, o.share);
    }
}

TEST(Files, PositionedTransfersSizeAndPosition) {
    std::wstring path = io::Tmp(L"rw.bin");
    HANDLE file = io::Open(path), reader = io::Open(path, PLT_FILE_OPEN, 0);
    char text[16] = {};
    uint32_t done = 0;
    uint64_t size = 9, at = 9;
    EXPECT_CALLS("0 11 0 0 5 0 11", PltWriteFile(file, 0, "hello world", 11, &done), done,
                 PltWriteFile(file, 0, "j", 1, nullptr), PltReadFile(file, 6, text, 5, &done), done,
                 PltGetFilePosition(file, &at), int64_t(at));
    EXPECT_CALLS("0 0 3 0 0 0 1 11", PltSetFilePosition(file, 8, 7),
                 PltReadFile(file, PLT_CURRENT_POSITION, text + 5, 10, &done), done,
                 PltGetFileSize(file, &size), PltSetFilePosition(file, -1, PLT_FILE_END),
                 PltReadFile(file, PLT_CURRENT_POSITION, text + 8, 10, &done), done, int64_t(size))
        << "origin 7 counts from the beginning; a short read is success";
    EXPECT_CALLS("1 1 5 0 0", PltReadFile(file, 1ull << 63, text, 1, &done),
                 PltWriteFile(file, 1ull << 63, text, 1, &done),
                 PltWriteFile(reader, 0, "x", 1, &done), PltIssueFlushBuffers(file),
                 PltGetFilePosition(file, nullptr))
        << "a failed seek reports 1; no write access gives 5";
    EXPECT_EQ(std::string(text) + "|" + io::Slurp(path), "worldrldd|jello world");
    EXPECT_CALLS("0 0 6 6 6 6 0 0", PltCloseFile(file), PltCloseFile(reader),
                 PltReadFile(file, PLT_CURRENT_POSITION, text, 1, &done),
                 PltWriteFile(file, PLT_CURRENT_POSITION, text, 1, &done),
                 PltGetFileSize(file, &size), PltGetFilePosition(file, &at), int64_t(size),
                 int64_t(at))
        << "closed handles; the outputs are cleared first";
}

TEST(Files, CopyMoveDeleteAndTheCurrentDirectory) {
    std::wstring a = io::Tmp(L"a.txt"), b = io::Tmp(L"b.txt"), c = io::Tmp(L"c.txt");
    io::Put(a, "A"), io::Put(b, "B");
    EXPECT_CALLS("80 0 0 0 2 2", PltCopyFile(a.c_str(), b.c_str(), 1),
                 PltCopyFile(a.c_str(), c.c_str(), 1), PltMoveFile(c.c_str(), b.c_str()),
                 PltDeleteFile(a.c_str()), PltDeleteFile(a.c_str()),
                 PltMoveFile(a.c_str(), c.c_str()));
    PLT_STATUS reboot = PltDeleteOnReboot(b.c_str());
    EXPECT_TRUE(io::Slurp(b) == "A" && (reboot == 0 || reboot == ERROR_ACCESS_DENIED)) << reboot;
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
    EXPECT_CALLS("0 183 183 0 2147746155 2147746155 87 1 1", PltCreateDirectoryPath(spaced.c_str()),
                 PltCreateDirectoryPath(spaced.c_str()),
                 PltCreateDirectoryPath((d + L"\\").c_str()),
                 PltCreateDirectoryPath(prefixed.c_str()), PltCreateDirectoryPath(L"abc"),
                 PltCreateDirectoryPath(L"   "), PltCreateDirectoryPath(nullptr),
                 io::IsDirectory(d + L"\\p\\q"), io::IsDirectory(prefixed));
    for (size_t n : {1023, 1024}) {  // the working copy goes to the heap from 1024 characters
        PLT_RESOURCE_STATS before = zt::Snapshot();
        PltCreateDirectoryPath((d + L"\\" + std::wstring(n - d.size() - 1, L'q')).c_str());
        EXPECT_EQ(zt::Delta(before, zt::Snapshot()).UntaggedAllocCount, n == 1024 ? 1u : 0u);
    }
    EXPECT_CALLS("145 0 0", PltRemoveDirectory(d.c_str()), PltRemoveDirectory(sub.c_str()),
                 PltRemoveDirectory((d + L"\\x").c_str()));
    std::wstring file = io::Tmp(L"ro.txt");
    io::Put(file, "r");
    SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_ARCHIVE);
    // Known Wine deviation: Wine reports every regular file as archived.
    DWORD wine = GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") ? 0x20 : 0;
    EXPECT_CALLS("0 6", PltSetAttributeHidden(file.c_str()),
                 GetFileAttributesW(file.c_str()) & ~wine)
        << "hidden and system replace read-only and archive";
}

TEST(Directories, EnumerationAndPathQueries) {
    std::wstring d = io::Tmp(L"e");
    PltCreateDirectoryPath((d + L"\\sub").c_str());
    io::Put(d + L"\\one.txt", "1");
    PLT_FIND_DATA data;
    HANDLE find = nullptr;
    std::set<std::wstring> seen;
    for (PLT_STATUS s = PltFindFirstFile((d + L"\\*").c_str(), &data, &find); s == 0;
         s = PltFindNextFile(find, &data))
        seen.insert(std::wstring(data.FileName) + (data.IsDirectory ? L"/" : L""));
    EXPECT_EQ(seen, (std::set<std::wstring>{L"./", L"../", L"one.txt", L"sub/"}));
    EXPECT_CALLS("18 0 87 87 2 1", PltFindNextFile(find, &data), PltFindClose(find),
                 PltFindNextFile(nullptr, &data), PltFindFirstFile(d.c_str(), &data, nullptr),
                 PltFindFirstFile((d + L"\\*.bin").c_str(), &data, &find),
                 find == INVALID_HANDLE_VALUE);
    // {path, status, is a directory, directory name}
    const std::tuple<std::wstring, uint32_t, int, std::wstring> cases[] = {
        {d, 0, 1, d + L"\\"},
        {d + L"\\sub", 0, 1, d + L"\\sub\\"},
        {d + L"\\one.txt", 0, 0, d + L"\\"},
        {d + L"\\.*", 0, 0, d + L"\\"},
        {d + L"\\none", 2, 0, L"kept"},
        {d + L"\\none\\x", 3, 0, L"kept"}};
    for (const auto& [path, status, isDirectory, name] : cases) {
        uint8_t flag = 7;
        wchar_t out[MAX_PATH] = L"kept";
        EXPECT_CALLS(zt::Joined({status, isDirectory, status, 1}),
                     PltIsDirectory(path.c_str(), &flag), flag,
                     PltGetDirectoryName(path.c_str(), out, sizeof out), out == name)
            << path.c_str();
    }
    // Only the path's text is read, and the result must fit with its
    // terminator: both lie against no-access pages.
    std::wstring name = d + L"\\sub";
    zt::GuardedBuffer path((name.size() + 1) * 2), exact((name.size() + 2) * 2);
    memcpy(path.data(), name.c_str(), (name.size() + 1) * 2);
    wchar_t out[8], cwd[MAX_PATH];
    GetCurrentDirectoryW(MAX_PATH, cwd);
    SetCurrentDirectoryW(d.c_str());
    EXPECT_CALLS(
        "0 1 8 87 87 0 1", PltGetDirectoryName(path.as<wchar_t>(), exact.as<wchar_t>(), 600),
        exact.as<wchar_t>() + name.size() + 1 == wcschr(exact.as<wchar_t>(), 0),
        PltGetDirectoryName(path.as<wchar_t>(), exact.as<wchar_t>(), (name.size() + 1) * 2),
        PltGetDirectoryName(d.c_str(), nullptr, 10), PltIsDirectory(d.c_str(), nullptr),
        PltGetDirectoryName(L"one.txt", out, sizeof out), wcscmp(out, L"one.txt") == 0)
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
    EXPECT_EQ(PltUnmapViewOfFile(view), 0u);
    EXPECT_DELTA(before,
                 {.AllocCount = 1, .AllocBytes = 16, .AllocBySize = {1}, .UntaggedAllocCount = 1});
    ASSERT_EQ(PltMapViewOfFile(&view, &base, 0, file, 0x10000, 0), 0u);
    EXPECT_CALLS("97 0 1 5 1 87 87 87 87", *static_cast<char*>(base), PltUnmapViewOfFile(view),
                 io::Slurp(path).substr(0, 7) == "mappeda",
                 PltMapViewOfFile(&view, &base, 0, reader, -1, 0), base == nullptr,
                 PltMapViewOfFile(nullptr, &base, 0, file, 0, 0),
                 PltMapViewOfFile(&view, nullptr, 0, file, 0, 0),
                 PltMapViewOfFile(&view, &base, 0, nullptr, 0, 0), PltUnmapViewOfFile(nullptr))
        << "a read-only view at an offset; the mapping is read-write even then";
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
            << "no error code: success without a view, its record left allocated";
    }
    zt::LeavesBehind({.LiveAllocCount = 1, .LiveAllocBytes = 16, .LiveAllocBySize = {1}});
    EXPECT_CALLS("0 0", PltCloseFile(file), PltCloseFile(reader));
}

}  // namespace
