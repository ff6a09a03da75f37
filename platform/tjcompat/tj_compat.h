// TurboJPEG entry points that some builds of libjpeg-turbo offer beyond the published API.
#pragma once

#include <turbojpeg.h>

extern "C" {

// Sets whether warnings on `handle` are ignored. Returns 0 on success and a negative value when
// the setting can't be made.
//
// Debian's libjpeg-turbo 2.1.5 has no such entry, so this unit provides it. That TurboJPEG
// always reports a warning ("extraneous bytes before marker", "premature end of data segment",
// ...) as a failure: tjDecompressHeader2() and tjDecompressToYUV() return -1 although the
// decoder went on to the end. So `ignore` = 0 asks for what the library does anyway and
// succeeds, while `ignore` != 0 asks for something this build can't do and fails (-1): the
// caller then refuses the frame instead of trusting a result the library flagged. A null
// handle fails too.
int tjIgnoreWarnings(tjhandle handle, int ignore);
}
