/* ZendraPlatform threads, processes, modules, environment, time and dates.
 * C-compatible. */
#ifndef ZENDRA_OS_H
#define ZENDRA_OS_H

#include <zendra/platform.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- threads ---- */

/* ---- processes, modules and environment ---- */

/* ---- time and dates ---- */

#ifdef __cplusplus
}
#endif

#endif /* ZENDRA_OS_H */
