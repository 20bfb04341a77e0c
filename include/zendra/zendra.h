/* ZendraPlatform: every public header. */
#ifndef ZENDRA_ZENDRA_H
#define ZENDRA_ZENDRA_H

#include <zendra/platform.h>
#include <zendra/msgbus.h>
#include <zendra/os.h>
#include <zendra/text.h>
#include <zendra/net.h>
#include <zendra/config.h>
#include <zendra/io.h>
#include <zendra/storage.h>
#include <zendra/selfcheck.h>

#endif
