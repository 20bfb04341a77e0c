/* ZendraPlatform storage and machine: volumes, disks and partitions, device
 * access, machine identity and machine information.
 * C-compatible. */
#ifndef ZENDRA_STORAGE_H
#define ZENDRA_STORAGE_H

#include <zendra/platform.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- device access ---- */

/* ---- volumes ---- */

/* ---- disks and partitions ---- */

/* ---- machine identity ---- */

/* ---- machine and OS information ---- */

#ifdef __cplusplus
}
#endif

#endif /* ZENDRA_STORAGE_H */
