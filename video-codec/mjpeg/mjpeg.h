// Entry points and process-wide state of the decoder library.
#pragma once

#include "vidra/cpu_info.h"
#include "vidra/mjpeg.h"

namespace vidra {
namespace jpeg {

// What the processor can do, probed once while the library loads.
VIDRA_MJPEG_EXPORT extern const CPUInfo g_cpu_info_;

}  // namespace jpeg
}  // namespace vidra
