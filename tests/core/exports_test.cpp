// The export table: exactly the listed names, names of one body at one
// address, and only system DLLs imported.

#include <map>
#include <set>
#include <string>

#include "zt.h"

namespace {

struct ExportEntry {
    const char* name;
    const char* target;  // empty: exported under its own name
};
const ExportEntry kExportList[] = {
#include "export_list.inc"
};

const IMAGE_DATA_DIRECTORY& Directory(const BYTE* base, int which) {
    auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    return reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew)
        ->OptionalHeader.DataDirectory[which];
}

TEST(Exports, ListedNamesOnlyOneAddressPerBodyAndSystemImports) {
    auto* base = reinterpret_cast<const BYTE*>(zt::LibraryModule());
    ASSERT_NE(base, nullptr);
    auto* exp = reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(
        base + Directory(base, IMAGE_DIRECTORY_ENTRY_EXPORT).VirtualAddress);
    std::set<std::string> exported, listed;
    for (DWORD i = 0; i < exp->NumberOfNames; ++i)
        exported.insert(reinterpret_cast<const char*>(
            base + reinterpret_cast<const DWORD*>(base + exp->AddressOfNames)[i]));
    std::map<std::string, FARPROC> byBody;
    std::set<FARPROC> addresses;
    for (const ExportEntry& e : kExportList) {
        listed.insert(e.name);
        FARPROC address = GetProcAddress(zt::LibraryModule(), e.name);
        EXPECT_NE(address, nullptr) << e.name;
        auto [it, first] = byBody.emplace(*e.target ? e.target : e.name, address);
        if (first) EXPECT_TRUE(addresses.insert(address).second) << e.name << " shares a body";
        EXPECT_EQ(it->second, address) << e.name << " and its body " << it->first;
    }
    EXPECT_EQ(exported, listed);
    const std::set<std::string> allowed = {"kernel32.dll", "advapi32.dll", "ws2_32.dll",
                                           "msvcrt.dll",   "user32.dll",   "shell32.dll",
                                           "ole32.dll",    "bcrypt.dll"};
    for (auto* d = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(
             base + Directory(base, IMAGE_DIRECTORY_ENTRY_IMPORT).VirtualAddress);
         d->Name != 0; ++d) {
        std::string name = reinterpret_cast<const char*>(base + d->Name);
        for (char& c : name) c = static_cast<char>(tolower(c));
        EXPECT_TRUE(allowed.count(name)) << "unexpected import of " << name;
    }
}

}  // namespace
