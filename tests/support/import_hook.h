// Replaces one Win32 import of ZendraPlatform.dll with a test function for
// the lifetime of the hook object: fault injection and simulated devices
// without touching the library's code.
#pragma once

#include <windows.h>

namespace zt {

class ImportHook {
public:
    // Patches every import address table entry of the library that imports
    // `function` (by name, from any DLL). Fails the current test when the
    // library does not import it.
    ImportHook(const char* function, void* replacement);
    ~ImportHook();
    ImportHook(const ImportHook&) = delete;
    ImportHook& operator=(const ImportHook&) = delete;

    // The function the library imported, for replacements that forward.
    template <typename F>
    F original() const {
        return reinterpret_cast<F>(original_);
    }
    bool installed() const { return slot_ != nullptr; }

private:
    void** slot_ = nullptr;
    void* original_ = nullptr;
};

HMODULE LibraryModule();

}  // namespace zt
