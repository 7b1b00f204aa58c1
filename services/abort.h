// abort.h - polling for the user's wish to stop.
#pragma once

#include <cstdint>

#include "platform/win32.h"

// 1 when the user has asked to stop: an abort key or a quit message among
// the first 10 waiting messages (all put back), or an abort seen before.
int32_t AbortPoll(MSG *message);
// 1 when `message` itself asks to stop (or an abort was seen before).
int32_t AbortFromMessage(MSG *message);
