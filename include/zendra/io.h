/* ZendraPlatform files, directories, asynchronous I/O, mapped views and the file extent map.
 * C-compatible. */
#ifndef ZENDRA_IO_H
#define ZENDRA_IO_H

#include <zendra/platform.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
}
#endif

#endif /* ZENDRA_IO_H */
