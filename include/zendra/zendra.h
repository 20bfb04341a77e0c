/* ZendraPlatform: every public header. */
#ifndef ZENDRA_ZENDRA_H
#define ZENDRA_ZENDRA_H

#include <zendra/platform.h>
#include <zendra/msgbus.h>
#include <zendra/os.h>
#include <zendra/text.h>

#endif
