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

// Where the calling thread's decoder last refused a frame. Written only on a refusal, so a
// frame that decodes pays nothing for it.
struct RefusalNote {
  const char* function = nullptr;   // null: no refusal since the last clearRefusalNote()
  const char* condition = nullptr;  // the failed check as written, or null for explicit sites
  int marker = -1;                  // the marker that ended the marker loop, or -1
};

// Records a refusal unless one is already recorded since the last clearRefusalNote().
void noteRefusal(const char* function, const char* condition, int marker = -1);
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
