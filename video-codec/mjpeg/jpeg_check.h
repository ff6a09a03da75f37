// The check form of every parser in the decoder: when `condition` fails, one line
// "<source line>: JPEG assertion failed <condition as written>" goes to channel "mjpeg" at
// level 2 (only when that level is enabled), and the enclosing function returns false.
#pragma once

#include "vidra/log.h"

#define JPEG_CHECK(condition)                                                     \
  do {                                                                            \
    if (!(condition)) {                                                           \
      VIDRA_LOG(2, "mjpeg") << __LINE__ << ": JPEG assertion failed " #condition; \
      return false;                                                               \
    }                                                                             \
  } while (0)
