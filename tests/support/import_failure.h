// Makes one Win32 import of the library fail: the replacement sets the
// chosen last error and returns zero (null handle, FALSE, 0).
//   ZT_FAIL_IMPORT(CreateEventW, ERROR_NO_SYSTEM_RESOURCES);
#pragma once

#include "import_hook.h"

namespace zt {

extern DWORD g_importError;

template <typename R, typename... A>
R FailWithImportError(A...) {
    SetLastError(g_importError);
    return R();
}

template <typename R, typename... A>
void* FailingVersionOf(R (*)(A...)) {
    return reinterpret_cast<void*>(&FailWithImportError<R, A...>);
}

class ImportFailure : public ImportHook {
public:
    ImportFailure(const char* name, void* replacement, DWORD error)
        : ImportHook((g_importError = error, name), replacement) {}
};

}  // namespace zt

#define ZT_CONCAT2(a, b) a##b
#define ZT_CONCAT(a, b) ZT_CONCAT2(a, b)
#define ZT_FAIL_IMPORT(function, error)                   \
    ::zt::ImportFailure ZT_CONCAT(zt_failure_, __LINE__)( \
        #function, ::zt::FailingVersionOf(&::function), (error))
