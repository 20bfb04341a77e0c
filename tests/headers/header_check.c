/* Every public header under a consumer's strictest usual flags: a header
 * that warns there fails this build. */
#include <zendra/zendra.h>

/* The status names compare with a PLT_STATUS without sign warnings. */
int zendra_header_check(PLT_STATUS status);
int zendra_header_check(PLT_STATUS status) {
    return status == PLT_STATUS_POOL_STOPPING || status == PLT_STATUS_NO_DIRECTORY;
}
