// Import patches: one entry of a module's import address table, found by
// walking its import descriptors, replaced and later restored.
#include <string.h>

#include <zendra/sim.h>

namespace zendra::sim {

namespace {

void WriteSlot(void** slot, void* value) {
    DWORD old = 0;
    VirtualProtect(slot, sizeof(void*), PAGE_READWRITE, &old);
    __atomic_store_n(slot, value, __ATOMIC_SEQ_CST);
    VirtualProtect(slot, sizeof(void*), old, &old);
}

}  // namespace

void** FindImportSlot(HMODULE module, const char* function) {
    if (module == nullptr) return nullptr;
    auto* base = reinterpret_cast<BYTE*>(module);
    auto* nt = reinterpret_cast<IMAGE_NT_HEADERS*>(
        base + reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew);
    const IMAGE_DATA_DIRECTORY& dir =
        nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    for (auto* desc = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + dir.VirtualAddress);
         dir.VirtualAddress != 0 && desc->Name != 0; ++desc) {
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

ImportPatch::ImportPatch(const char* function, void* replacement, const wchar_t* module) {
    slot_ = FindImportSlot(GetModuleHandleW(module), function);
    if (slot_ == nullptr) return;
    original_ = *slot_;
    WriteSlot(slot_, replacement);
}

ImportPatch::~ImportPatch() {
    if (slot_ != nullptr) WriteSlot(slot_, original_);
}

}  // namespace zendra::sim
