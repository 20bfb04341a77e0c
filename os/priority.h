// Internal: the thread priority that a level of the four-level scale sets.
#pragma once

#include <stdint.h>

namespace zendra {

int ThreadPriorityOf(uint32_t level);

}  // namespace zendra
