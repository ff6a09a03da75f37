#include "tj_compat.h"

extern "C" int tjIgnoreWarnings(tjhandle handle, int ignore) {
  if (handle == nullptr) return -1;
  return ignore ? -1 : 0;
}
