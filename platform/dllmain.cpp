// The library does no work at load time: the heap and every object are
// obtained lazily by the first call that needs them.
#include <windows.h>

#include "platform/sync_internal.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved) {
    if (reason == DLL_PROCESS_ATTACH) DisableThreadLibraryCalls(instance);
    // Unloaded while the process goes on: the read-hold tables' slot names a
    // callback in this module, so it goes first. At process exit nothing
    // needs freeing.
    if (reason == DLL_PROCESS_DETACH && reserved == nullptr) zendra::ReleaseReadHoldTables();
    return TRUE;
}
