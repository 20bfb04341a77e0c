// Shared pieces of the storage tests: text of the records, and the live
// machine's kind.
#pragma once

#include <string>

#include <zendra/storage.h>

#include "zt.h"

namespace st {

// ASCII text of a wide string ('?' for anything else).
inline std::string Text(const wchar_t* w) {
    std::string s;
    for (; *w; ++w) s += *w < 128 ? static_cast<char>(*w) : '?';
    return s;
}

// Where Wine answers what Windows would not, a test says so rather than
// expecting it.
inline bool OnWine() {
    return GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

}  // namespace st
