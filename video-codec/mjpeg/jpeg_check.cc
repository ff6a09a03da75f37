#include "jpeg_check.h"

namespace vidra {
namespace jpeg {
namespace {

// Constant-initialised, so that no thread pays for setting it up.
thread_local RefusalNote t_refusal_note;

}  // namespace

void noteRefusal(const char* function, const char* condition) {
  if (t_refusal_note.function != nullptr) return;
  t_refusal_note.function = function;
  t_refusal_note.condition = condition;
}

void clearRefusalNote() { t_refusal_note = RefusalNote(); }

RefusalNote refusalNote() { return t_refusal_note; }

}  // namespace jpeg
}  // namespace vidra
