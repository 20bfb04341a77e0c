// Report buffers for the self-check tests: the text ends at a no-access page,
// so that any write past the capacity faults at once.
#pragma once

#include <string.h>

#include <string>

#include <zendra/selfcheck.h>

#include "zt.h"

class Report {
public:
    explicit Report(uint32_t capacity = 1u << 16, const std::wstring& initial = L"")
        : buffer_(4 + size_t{capacity} * sizeof(wchar_t)) {
        get()->Capacity = capacity;
        memcpy(get()->Text, initial.c_str(), (initial.size() + 1) * sizeof(wchar_t));
    }
    PLT_REPORT_BUFFER* get() const { return buffer_.as<PLT_REPORT_BUFFER>(); }
    // The text up to its terminator, never past the capacity.
    std::wstring text() const {
        return std::wstring(get()->Text, wcsnlen(get()->Text, get()->Capacity));
    }
    // The descriptions of its failure lines, in order, each followed by ';'.
    std::wstring failures() const {
        std::wstring all = text(), out;
        const std::wstring mark = L" : Failed - ";
        for (size_t at = all.find(mark); at != std::wstring::npos; at = all.find(mark, at + 1)) {
            size_t end = all.find(L"\r\n", at);
            out += all.substr(at + mark.size(), end - at - mark.size()) + L";";
        }
        return out;
    }

private:
    zt::GuardedBuffer buffer_;
};

// Children the routines start (TestProcess lists C:\Windows\System32)
// write to the standard handles: send them to NUL while a routine runs.
class QuietChildren {
public:
    QuietChildren()
        : out_(GetStdHandle(STD_OUTPUT_HANDLE)),
          nul_(CreateFileW(L"NUL", GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                           OPEN_EXISTING, 0, nullptr)) {
        SetStdHandle(STD_OUTPUT_HANDLE, nul_);
    }
    ~QuietChildren() {
        SetStdHandle(STD_OUTPUT_HANDLE, out_);
        CloseHandle(nul_);
    }

private:
    HANDLE out_, nul_;
};

inline bool Exists(const wchar_t* path) {
    return GetFileAttributesW(path) != INVALID_FILE_ATTRIBUTES;
}

// No file or directory the routines use is left in the current directory,
// and the product key is gone from the registry.
inline ::testing::AssertionResult NothingLeftBehind() {
    for (const wchar_t* left : {L"Test.txt", L"TestMMF.dat", L"FileTest.dir", L"FIOCPMV", L"FileRW",
                                L"FileSeek", L"AsyncFile", L"Test1.dir", L"MessageBusTestExDir"})
        if (Exists(left)) return ::testing::AssertionFailure() << "left behind: " << left;
    HKEY key;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Velmora", 0, KEY_READ, &key) == 0) {
        RegCloseKey(key);
        return ::testing::AssertionFailure() << "left behind: HKLM\\SOFTWARE\\Velmora";
    }
    return ::testing::AssertionSuccess();
}

inline std::wstring SystemMessage(DWORD code) {
    wchar_t text[2049] = {};
    FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code, 1024,
                   text, 2048, nullptr);
    return text;
}
