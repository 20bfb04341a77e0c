/* ZendraPlatform configuration store: typed values in the registry under two roots.
 * C-compatible. */
#ifndef ZENDRA_CONFIG_H
#define ZENDRA_CONFIG_H

#include <zendra/platform.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
}
#endif

#endif /* ZENDRA_CONFIG_H */
