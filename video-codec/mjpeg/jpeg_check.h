// The check form of every parser in the decoder: when `condition` fails, one line
// "<source line>: JPEG assertion failed <condition as written>" goes to channel "mjpeg" at
// level 2 (only when that level is enabled), and the enclosing function returns false.
//
// A failing check also leaves a note for the calling thread (noteRefusal), which the reporting
// entry point turns into a reason. Only the first failure of a decode is kept: a check that
// fails inside a parser makes the check around the parser's call fail as well.
#pragma once

#include "vidra/log.h"

namespace vidra {
namespace jpeg {

// The first check that failed on the calling thread since the last clearRefusalNote(). Written
// only on a refusal, so a frame that decodes pays nothing for it.
struct RefusalNote {
  const char* function = nullptr;   // null: no check failed
  const char* condition = nullptr;  // the check as written
};

// Records a failed check unless one is already recorded.
void noteRefusal(const char* function, const char* condition);
void clearRefusalNote();
RefusalNote refusalNote();

}  // namespace jpeg
}  // namespace vidra

#define JPEG_CHECK(condition)                                                     \
  do {                                                                            \
    if (!(condition)) {                                                           \
      ::vidra::jpeg::noteRefusal(__func__, #condition);                           \
      VIDRA_LOG(2, "mjpeg") << __LINE__ << ": JPEG assertion failed " #condition; \
      return false;                                                               \
    }                                                                             \
  } while (0)
