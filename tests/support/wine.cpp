#include "wine.h"

#include <windows.h>

namespace zt {

const char* WineVersion() {
    using Fn = const char* (*)();
    HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    if (ntdll == nullptr) return nullptr;
    auto fn =
        reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(ntdll, "wine_get_version")));
    return fn != nullptr ? fn() : nullptr;
}

bool IsWine() { return WineVersion() != nullptr; }

}  // namespace zt
