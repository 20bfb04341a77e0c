/* ZendraPlatform sockets: blocking TCP over IPv4, client and server.
 * C-compatible. */
#ifndef ZENDRA_NET_H
#define ZENDRA_NET_H

#include <zendra/platform.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
}
#endif

#endif /* ZENDRA_NET_H */
