// The store's root table, shared with the machine information reads.
#pragma once

#include <windows.h>

#include <stdint.h>

namespace zendra {

// The predefined key of a root id, or null for an unknown id.
HKEY ConfigRoot(uint32_t id);

// Closes a key the way the store does (CloseHandle), unless it is a root.
void ReleaseConfigKey(HKEY key);

}  // namespace zendra
