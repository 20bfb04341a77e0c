#include "import_hook.h"

#include <string.h>

#include <gtest/gtest.h>

namespace zt {

HMODULE LibraryModule() { return GetModuleHandleW(L"ZendraPlatform.dll"); }

namespace {

void** FindImportSlot(HMODULE module, const char* function) {
    auto* base = reinterpret_cast<BYTE*>(module);
    auto* dos = reinterpret_cast<IMAGE_DOS_HEADER*>(base);
    auto* nt = reinterpret_cast<IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& dir =
        nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    if (dir.VirtualAddress == 0) return nullptr;
    for (auto* desc = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + dir.VirtualAddress);
         desc->Name != 0; ++desc) {
        auto* names = reinterpret_cast<IMAGE_THUNK_DATA*>(
            base + (desc->OriginalFirstThunk ? desc->OriginalFirstThunk : desc->FirstThunk));
        auto* slots = reinterpret_cast<IMAGE_THUNK_DATA*>(base + desc->FirstThunk);
        for (; names->u1.AddressOfData != 0; ++names, ++slots) {
            if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal)) continue;
            auto* byName = reinterpret_cast<IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
            if (strcmp(reinterpret_cast<const char*>(byName->Name), function) == 0)
                return reinterpret_cast<void**>(&slots->u1.Function);
        }
    }
    return nullptr;
}

void WriteSlot(void** slot, void* value) {
    DWORD old = 0;
    VirtualProtect(slot, sizeof(void*), PAGE_READWRITE, &old);
    __atomic_store_n(slot, value, __ATOMIC_SEQ_CST);
    VirtualProtect(slot, sizeof(void*), old, &old);
}

}  // namespace

ImportHook::ImportHook(const char* function, void* replacement) {
    HMODULE module = LibraryModule();
    if (module == nullptr) {
        ADD_FAILURE() << "ZendraPlatform.dll is not loaded";
        return;
    }
    slot_ = FindImportSlot(module, function);
    if (slot_ == nullptr) {
        ADD_FAILURE() << "ZendraPlatform.dll does not import " << function;
        return;
    }
    original_ = *slot_;
    WriteSlot(slot_, replacement);
}

ImportHook::~ImportHook() {
    if (slot_ != nullptr) WriteSlot(slot_, original_);
}

}  // namespace zt

#include "import_failure.h"

namespace zt {
DWORD g_importError;
}  // namespace zt
