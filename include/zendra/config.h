/* ZendraPlatform configuration store: typed values in the registry under two roots.
 * C-compatible. */
#ifndef ZENDRA_CONFIG_H
#define ZENDRA_CONFIG_H

#include <zendra/platform.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A config handle is the registry key handle itself; the caller gives it back
 * to PltCloseConfig. Root ids: 0 local machine, 1 current user. Access modes:
 * 0 all access, 1 read only, any other read and write. Subkeys are paths
 * relative to the handle; a null subkey means the handle's own key. Registry
 * failures come back unchanged (2 missing, 5 access denied, 234 buffer too
 * small, 1630 a value of another type). Null handles and pointers give
 * INVALID_HANDLE (6), except where a comment says INVALID_PARAMETER. */
#define PLT_CONFIG_LOCAL_MACHINE 0u
#define PLT_CONFIG_CURRENT_USER 1u

/* Opens root\subkey, creating nothing; *config is 0 unless it succeeds.
 * INVALID_HANDLE for an unknown root or a null config. */
ZENDRA_API PLT_STATUS PltOpenConfig(uint32_t root, const wchar_t* subkey, int32_t access,
                                    HKEY* config);
/* Creates subkey (and any missing key on its path) below parent; an existing
 * key is no error. */
ZENDRA_API PLT_STATUS PltCreateConfigKey(HKEY parent, const wchar_t* subkey);
/* Creates rootPath\subkey below the local-machine root and opens it with the
 * access mode. INVALID_PARAMETER for a null rootPath or subkey, or a joined
 * path longer than 259 characters; INVALID_HANDLE for a null config. */
ZENDRA_API PLT_STATUS PltCreateOpenConfigKey(HKEY* config, const wchar_t* rootPath,
                                             const wchar_t* subkey, int32_t access);

/* Strings, multi-strings (each zero-terminated, ended by an empty one) and
 * binary values; sizes in bytes, a string's including its terminator. Setting
 * creates a missing subkey. The byte count read is not passed back. */
ZENDRA_API PLT_STATUS PltGetConfigKeyStr(HKEY config, const wchar_t* subkey, const wchar_t* name,
                                         uint32_t bytes, wchar_t* buffer);
ZENDRA_API PLT_STATUS PltSetConfigKeyStr(HKEY config, const wchar_t* subkey, const wchar_t* name,
                                         uint32_t bytes, const wchar_t* data);
ZENDRA_API PLT_STATUS PltGetConfigKeyMultiStr(HKEY config, const wchar_t* subkey,
                                              const wchar_t* name, uint32_t bytes,
                                              wchar_t* buffer);
ZENDRA_API PLT_STATUS PltSetConfigKeyMultiStr(HKEY config, const wchar_t* subkey,
                                              const wchar_t* name, uint32_t bytes,
                                              const wchar_t* data);
ZENDRA_API PLT_STATUS PltGetConfigKeyBin(HKEY config, const wchar_t* subkey, const wchar_t* name,
                                         uint32_t bytes, void* buffer);
ZENDRA_API PLT_STATUS PltSetConfigKeyBin(HKEY config, const wchar_t* subkey, const wchar_t* name,
                                         uint32_t bytes, const void* data);
/* *value receives the default, replaced by the value when it can be read as
 * a 32-bit number (a 4-byte binary value too): 0 whether or not it could. */
ZENDRA_API PLT_STATUS PltGetConfigKeyUINT(HKEY config, const wchar_t* subkey, const wchar_t* name,
                                          uint32_t* value, uint32_t defaultValue);
ZENDRA_API PLT_STATUS PltSetConfigKeyUINT(HKEY config, const wchar_t* subkey, const wchar_t* name,
                                          uint32_t value);
/* Reads 8 bytes (a 64-bit number or an 8-byte binary value); failures are
 * reported, there is no default. */
ZENDRA_API PLT_STATUS PltGetConfigKeyUINT64(HKEY config, const wchar_t* subkey,
                                            const wchar_t* name, uint64_t* value);
ZENDRA_API PLT_STATUS PltSetConfigKeyUINT64(HKEY config, const wchar_t* subkey,
                                            const wchar_t* name, uint64_t value);
/* The subkey is required here (INVALID_HANDLE when null). */
ZENDRA_API PLT_STATUS PltDeleteConfigVariable(HKEY config, const wchar_t* subkey,
                                              const wchar_t* name);
/* Deletes subkey with everything below it; a null subkey empties the
 * handle's own key but keeps it. */
ZENDRA_API PLT_STATUS PltDeleteConfigKey(HKEY config, const wchar_t* subkey);
/* Closes *config (with CloseHandle) and sets it to 0; a root handle is left
 * open and as it is (0). The error of CloseHandle otherwise. */
ZENDRA_API PLT_STATUS PltCloseConfig(HKEY* config);

#ifdef __cplusplus
}
#endif

#endif /* ZENDRA_CONFIG_H */
