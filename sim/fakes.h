// Inside the simulation: the real calls the fakes pass on to, the state of a
// simulated handle, and the fakes themselves, in three files by concern
// (simulation.cpp: handles, files, devices, volumes; storage_fakes.cpp: the
// volume list and volume queries, disks; setupapi_fakes.cpp: the Setup API).
#pragma once

#include <string>

#include <zendra/sim.h>
#include <setupapi.h>

namespace zendra::sim {

// The system's own entry points, resolved from kernel32 before any patch, so
// that a fake passing a call on never reaches another fake.
struct RealCalls {
    decltype(&::CreateFileW) CreateFileW;
    decltype(&::CloseHandle) CloseHandle;
    decltype(&::DeviceIoControl) DeviceIoControl;
    decltype(&::ReadFile) ReadFile;
    decltype(&::WriteFile) WriteFile;
    decltype(&::SetFilePointerEx) SetFilePointerEx;
    decltype(&::GetOverlappedResult) GetOverlappedResult;
    decltype(&::GetVolumeNameForVolumeMountPointW) GetVolumeNameForVolumeMountPointW;
    decltype(&::GetDiskFreeSpaceW) GetDiskFreeSpaceW;
    decltype(&::GetDiskFreeSpaceExW) GetDiskFreeSpaceExW;
    decltype(&::GetDriveTypeW) GetDriveTypeW;
    decltype(&::GetVolumeInformationW) GetVolumeInformationW;
    decltype(&::GetVolumePathNamesForVolumeNameW) GetVolumePathNamesForVolumeNameW;
    decltype(&::FindNextVolumeW) FindNextVolumeW;
    decltype(&::FindVolumeClose) FindVolumeClose;
    decltype(&::LoadLibraryW) LoadLibraryW;
    decltype(&::GetProcAddress) GetProcAddress;
    decltype(&::FreeLibrary) FreeLibrary;
    decltype(&::LocalAlloc) LocalAlloc;
    decltype(&::LocalFree) LocalFree;
};
extern RealCalls g_real;
void ResolveRealCalls();

extern Simulation* g_simulation;

BOOL Fail(DWORD error);
bool SameText(const std::wstring& a, const wchar_t* b);
std::wstring Lower(std::wstring text);

struct Simulation::Handle {
    std::wstring path;
    Volume* volume = nullptr;
    File* file = nullptr;
    Device* device = nullptr;
    Disk* disk = nullptr;
    uint64_t position = 0;
};

struct Fakes {
    using Lock = std::lock_guard<std::recursive_mutex>;

    static Simulation::Handle* Find(Simulation& s, HANDLE h);
    static HANDLE NewHandle(Simulation& s);
    // The volume a name gives: as a root or mount point ("S:\", a mount path
    // or the GUID path, with their backslash), or as a device to open
    // ("\\.\S:", the GUID path without its backslash).
    static Volume* VolumeOf(Simulation& s, const wchar_t* name, bool root);
    // The disk of "\\.\PHYSICALDRIVEn" (with a trailing backslash when
    // `slashed`): true when the name has that form; *disk null when no such
    // disk is described.
    static bool DiskName(Simulation& s, const wchar_t* name, bool slashed, Disk** disk);
    static Disk* DiskNumbered(Simulation& s, uint32_t number);
    // A disk or disk interface to open: true when the name is one the
    // simulation owns; *disk null (and *error set) when it does not open.
    static bool OpenDisk(Simulation& s, const wchar_t* path, Disk** disk, DWORD* error);
    static BOOL DiskControl(Disk& d, DWORD code, const void* in, DWORD inBytes, void* out,
                            DWORD outBytes, DWORD* returned);

    // simulation.cpp
    static HANDLE WINAPI CreateFile(LPCWSTR, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD,
                                    HANDLE);
    static BOOL WINAPI CloseHandle(HANDLE);
    static BOOL WINAPI GetVolumeNameForVolumeMountPoint(LPCWSTR, LPWSTR, DWORD);
    static BOOL WINAPI GetDiskFreeSpace(LPCWSTR, LPDWORD, LPDWORD, LPDWORD, LPDWORD);
    static BOOL VolumeControl(Volume& v, DWORD code, const void* in, DWORD inBytes, void* out,
                              DWORD outBytes, DWORD* returned);
    static BOOL FileControl(File& f, DWORD code, void* out, DWORD outBytes, DWORD* returned);
    static BOOL DeviceControl(Simulation& s, Device& d, DWORD code, LPOVERLAPPED overlapped,
                              DWORD* returned);
    static BOOL WINAPI DeviceIoControl(HANDLE, DWORD, LPVOID, DWORD, LPVOID, DWORD, LPDWORD,
                                       LPOVERLAPPED);
    static BOOL Transfer(Simulation::Handle& h, void* buffer, DWORD bytes, DWORD* moved,
                         bool write);
    static BOOL WINAPI ReadFile(HANDLE, LPVOID, DWORD, LPDWORD, LPOVERLAPPED);
    static BOOL WINAPI WriteFile(HANDLE, LPCVOID, DWORD, LPDWORD, LPOVERLAPPED);
    static BOOL WINAPI SetFilePointer(HANDLE, LARGE_INTEGER, PLARGE_INTEGER, DWORD);
    static BOOL WINAPI GetOverlappedResult(HANDLE, LPOVERLAPPED, LPDWORD, BOOL);

    // storage_fakes.cpp
    static HANDLE WINAPI FindFirstVolume(LPWSTR, DWORD);
    static BOOL WINAPI FindNextVolume(HANDLE, LPWSTR, DWORD);
    static BOOL WINAPI FindVolumeClose(HANDLE);
    static UINT WINAPI GetDriveType(LPCWSTR);
    static BOOL WINAPI GetVolumeInformation(LPCWSTR, LPWSTR, DWORD, LPDWORD, LPDWORD, LPDWORD,
                                            LPWSTR, DWORD);
    static BOOL WINAPI GetDiskFreeSpaceEx(LPCWSTR, PULARGE_INTEGER, PULARGE_INTEGER,
                                          PULARGE_INTEGER);
    static BOOL WINAPI GetVolumePathNamesForVolumeName(LPCWSTR, LPWCH, DWORD, PDWORD);

    // setupapi_fakes.cpp
    static HMODULE WINAPI LoadLibrary(LPCWSTR);
    static FARPROC WINAPI GetProcAddress(HMODULE, LPCSTR);
    static BOOL WINAPI FreeLibrary(HMODULE);
    static HLOCAL WINAPI LocalAlloc(UINT, SIZE_T);
    static HLOCAL WINAPI LocalFree(HLOCAL);
    // The Setup API fakes, by entry-point name (null for another name).
    static void* SetupEntry(const char* name);
    // Records a Setup API call and applies its fault: true (with the last
    // error set) when the call is to fail. Called under the lock.
    static bool Failing(Simulation& s, const char* name);
    // The disk interfaces a device information set lists; null for a set
    // the simulation did not open.
    static const std::vector<DeviceInterface>* Listed(Simulation& s, HDEVINFO set);
    static HDEVINFO WINAPI GetClassDevs(const GUID*, PCWSTR, HWND, DWORD);
    static BOOL WINAPI EnumDeviceInfo(HDEVINFO, DWORD, PSP_DEVINFO_DATA);
    static BOOL WINAPI EnumInterfaces(HDEVINFO, PSP_DEVINFO_DATA, const GUID*, DWORD,
                                      PSP_DEVICE_INTERFACE_DATA);
    static BOOL WINAPI GetDetail(HDEVINFO, PSP_DEVICE_INTERFACE_DATA,
                                 PSP_DEVICE_INTERFACE_DETAIL_DATA_W, DWORD, PDWORD,
                                 PSP_DEVINFO_DATA);
    static BOOL WINAPI GetInstanceId(HDEVINFO, PSP_DEVINFO_DATA, PWSTR, DWORD, PDWORD);
    static BOOL WINAPI Destroy(HDEVINFO);
};

}  // namespace zendra::sim
