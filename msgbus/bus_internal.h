// Shared by the bus's subscription and delivery code.
#pragma once

#include <zendra/msgbus.h>

namespace zendra {

constexpr uint32_t kBusTag = PLT_TAG('Q', 'Z', 'M', 'B');

// The slot addressed by (type, action), already range-checked; null when
// creation could not set it up, in which case it behaves as a slot with no
// room and no subscriber.
MB_SLOT* SlotOf(MB_MSG_BUS* bus, uint32_t type, uint32_t action);

}  // namespace zendra
