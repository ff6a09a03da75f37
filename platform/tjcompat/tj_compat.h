// TurboJPEG entry points that some builds of libjpeg-turbo offer beyond the published API.
#pragma once

#include <turbojpeg.h>

extern "C" {

// Sets whether warnings on `handle` are ignored. Returns 0 on success and a negative value when
// the setting can't be made.
//
// Debian's libjpeg-turbo 2.1.5 has no such entry, so this unit provides it. What that build
// does with a warning (a recoverable defect of the stream, reported with tjGetErrorCode() ==
// TJERR_WARNING and its text in tjGetErrorStr()):
// - tjDecompressToYUV() returns -1 for a warning raised while it decodes the scan and reads the
//   markers behind it ("Corrupt JPEG data: 3 extraneous bytes before marker 0xd9", "Corrupt
//   JPEG data: premature end of data segment", "Premature end of JPEG file" of a truncated
//   frame), although it went on and filled the whole buffer. A warning raised while it reads
//   the frame's header (extraneous bytes in front of SOS) does not make it fail.
// - tjDecompressHeader2() returns -1 for a warning raised while it reads the header, such as
//   extraneous bytes in front of SOS. A stream that ends before any frame header (SOI alone)
//   is taken for a tables-only stream instead: the result is 0 and no output is written.
// - The warning state doesn't carry over from one call to the next on the same handle.
// So `ignore` = 0 asks for what this build does anyway and succeeds. `ignore` != 0 asks for
// something it can't do (no flag turns a warning into success; TJFLAG_STOPONWARNING only goes
// the other way) and fails with -1: the caller then refuses the frame instead of decoding it
// under a setting that wasn't made. A null handle fails too.
int tjIgnoreWarnings(tjhandle handle, int ignore);
}
