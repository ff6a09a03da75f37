"""Fast, damage-tolerant MJPEG decoding into I420 numpy planes.

    frame = vidra_mjpeg.decode_i420(jpeg_bytes)
    bgr = cv2.cvtColor(frame.image, cv2.COLOR_YUV2BGR_I420)

A damaged frame whose bad MCUs were concealed comes back with ``status == Status.CONCEALED``;
a refused frame raises ``FrameRefused`` and one that kept too few good MCUs ``FrameFailed``.
The GIL is released while a frame decodes, so threads decode in parallel.

The library's log lines go to the ``logging`` logger "vidra_mjpeg" (a refusal's reason at
INFO, broken invariants at WARNING), never straight to stderr.
"""

from __future__ import annotations

import enum
import logging
from typing import Iterator, NamedTuple, Optional

from . import _core

__all__ = [
    "ColourSpace", "DecodeError", "Frame", "FrameFailed", "FrameRefused", "Header", "Path",
    "Reason", "Status", "Subsampling", "decode_i420", "i420_nbytes", "iter_decode",
    "log_level", "read_header", "set_log_level", "split_mjpeg",
]

logger = logging.getLogger("vidra_mjpeg")


class Status(enum.IntEnum):
    CLEAN = 0  # decoded without damage
    CONCEALED = 1  # damaged MCUs concealed; more than 80% decoded
    FAILED = 2  # planes written, concealment included, but 80% or fewer MCUs decoded
    REFUSED = 3  # nothing written; see the reason


class Reason(enum.IntEnum):
    NONE = 0
    INVALID_ARGUMENT = 1
    SIZE_MISMATCH = 2
    NOT_JPEG = 3
    UNSUPPORTED_PROCESS = 4
    UNSUPPORTED_LAYOUT = 5
    UNSUPPORTED_COLOUR_SPACE = 6
    BAD_HEADER = 7
    TRUNCATED = 8
    TOO_LARGE = 9
    TURBO_ERROR = 10
    OUT_OF_MEMORY = 11  # the C interface's; here MemoryError is raised

    @property
    def text(self) -> str:
        """The library's short English text for the reason."""
        return _core.reason_text(self)


class Path(enum.IntEnum):
    """Which decoder produced the planes."""

    NONE = 0
    OWN = 1
    TURBO = 2
    TURBO_FALLBACK = 3


class ColourSpace(enum.IntEnum):
    UNKNOWN = 0
    GREY = 1
    YCBCR = 2
    RGB = 3
    CMYK = 4
    YCCK = 5


class Subsampling(enum.IntEnum):
    UNKNOWN = 0
    S444 = 1
    S422 = 2
    S420 = 3
    S440 = 4
    S411 = 5
    GREY = 6


_STATUS = tuple(Status)
_REASON = tuple(Reason)
_PATH = tuple(Path)
_DECODERS = {"auto": 0, "own": 1, "turbo": 2}
_LOG_LEVELS = {1: logging.WARNING, 2: logging.INFO}


class Header(NamedTuple):
    """What a frame's marker segments say, up to its first scan."""

    width: int
    height: int
    sampling: Subsampling
    progressive: bool
    colour_space: ColourSpace
    precision: int
    components: int
    component_ids: tuple[int, ...]
    h_factors: tuple[int, ...]
    v_factors: tuple[int, ...]
    sof_marker: int
    arithmetic: bool
    lossless: bool
    restart_interval: int
    has_dht: bool
    has_scan: bool


class Frame:
    """A decoded picture: I420 planes over one buffer, and what became of the frame."""

    __slots__ = ("buffer", "width", "height", "status", "reason", "path", "total_mcus",
                 "valid_mcus")

    def __init__(self, buffer, width, height, status, reason, path, total_mcus, valid_mcus):
        self.buffer = buffer  # 1-D uint8: Y, then U, then V, no gaps (a view of `out=`)
        self.width = width
        self.height = height
        self.status = status
        self.reason = reason
        self.path = path
        self.total_mcus = total_mcus  # the own decoder's counts; 0 on the TurboJPEG path
        self.valid_mcus = valid_mcus

    @property
    def y(self):
        return self.buffer[:self.width * self.height].reshape(self.height, self.width)

    def _chroma(self, index):
        cw, ch = self.width // 2, self.height // 2
        start = self.width * self.height + index * cw * ch
        return self.buffer[start:start + cw * ch].reshape(ch, cw)

    @property
    def u(self):
        return self._chroma(0)

    @property
    def v(self):
        return self._chroma(1)

    @property
    def image(self):
        """The planes as one (height * 3 // 2, width) array, as cv2.COLOR_YUV2BGR_I420 takes."""
        if self.width % 2 or self.height % 2:
            raise ValueError(f"a {self.width}x{self.height} frame has no single-array I420 "
                             "image (odd size); use y, u and v")
        return self.buffer.reshape(self.height * 3 // 2, self.width)

    def __repr__(self):
        return (f"<vidra_mjpeg.Frame {self.width}x{self.height} {self.status.name} "
                f"path={self.path.name} mcus={self.valid_mcus}/{self.total_mcus}>")


class DecodeError(ValueError):
    """A frame that wasn't decoded as asked; ``status`` and ``reason`` say what happened."""

    def __init__(self, message, status, reason, frame=None):
        super().__init__(message)
        self.status = status
        self.reason = reason
        self.frame = frame  # the written planes (FrameFailed), else None


class FrameRefused(DecodeError):
    """Nothing was decoded (not JPEG, unsupported, truncated before the scan, ...)."""


class FrameFailed(DecodeError):
    """The planes were written, concealment included, but the frame isn't good: 80% or fewer
    of its MCUs decoded (status FAILED), or it was concealed and ``strict=True`` was asked.
    ``frame`` holds the planes."""


def i420_nbytes(width: int, height: int) -> int:
    """Bytes of a packed I420 picture: Y, then U and V of (width // 2) x (height // 2)."""
    return _core.i420_nbytes(width, height)


def read_header(data) -> Header:
    """Reads a frame's marker segments up to its first scan; no entropy data is decoded.
    Raises FrameRefused when no frame header (SOFn) is found."""
    fields = _core.read_header(data)
    if fields is None:
        soi = bytes(memoryview(data).cast("B")[:2]) == b"\xff\xd8"
        reason = Reason.BAD_HEADER if soi else Reason.NOT_JPEG
        raise FrameRefused(f"no frame header: {reason.text}", Status.REFUSED, reason)
    fields["sampling"] = Subsampling(fields["sampling"])
    fields["colour_space"] = ColourSpace(fields["colour_space"])
    return Header(**fields)


def decode_i420(data, *, out=None, fallback: bool = True, decoder: str = "auto",
                strict: bool = False) -> Frame:
    """Decodes one (M)JPEG frame into I420 planes, with the GIL released.

    data: a C-contiguous buffer holding the frame from its SOI marker on.
    out: a writable C-contiguous buffer of at least i420_nbytes(width, height) bytes to decode
        into (the frame's planes are views of it); None allocates one.
    fallback: decode frames that the library's own decoder doesn't take (progressive, grey,
        FFmpeg's 4:2:2, ...) through TurboJPEG. Damage never falls back.
    decoder: "auto" (the own decoder where the processor has SSSE3 and SSE4.1), "own" or "turbo".
    strict: raise FrameFailed for a concealed frame too.
    """
    try:
        code = _DECODERS[decoder]
    except (KeyError, TypeError):
        raise ValueError(f"decoder must be 'auto', 'own' or 'turbo', not {decoder!r}") from None
    planes, width, height, status, reason, path, total, valid = _core.decode(
        data, out, fallback, code)
    status = _STATUS[status]
    if status is Status.REFUSED:
        reason = _REASON[reason]
        raise FrameRefused(f"frame refused: {reason.text}", status, reason)
    frame = Frame(planes, width, height, status, _REASON[reason], _PATH[path], total, valid)
    if status is Status.FAILED or (strict and status is Status.CONCEALED):
        raise FrameFailed(f"frame {status.name.lower()}: {valid} of {total} MCUs decoded",
                          status, frame.reason, frame)
    return frame


def split_mjpeg(buffer) -> Iterator[memoryview]:
    """The frames of a raw MJPEG stream held in one C-contiguous buffer (frames back to back,
    as `ffmpeg -f mjpeg` and many cameras write them), in order, as zero-copy memoryviews of
    it. Junk between frames is skipped; a frame whose EOI is missing ends where the next one
    begins, and a last frame cut short still comes out."""
    view = memoryview(buffer)
    if not view.c_contiguous:
        raise ValueError("buffer must be C-contiguous")
    if view.ndim != 1 or view.format != "B":
        view = view.cast("B")
    return _split(view)


def _split(view):
    for offset, size in _core.BufferSplitter(view):
        yield view[offset:offset + size]


def _read_frames(file, chunk):
    splitter = _core.StreamSplitter()
    read = getattr(file, "read1", file.read)
    while True:
        data = read(chunk)
        if not data:
            break
        splitter.feed(data)
        while (frame := splitter.next()) is not None:
            yield frame
    splitter.finish()
    while (frame := splitter.next()) is not None:
        yield frame


def _decode_all(frames, on_error, options):
    for data in frames:
        try:
            yield decode_i420(data, **options)
        except DecodeError as error:
            if on_error == "raise":
                raise
            if on_error == "yield":
                yield error


def iter_decode(source, *, on_error: str = "raise", fallback: bool = True,
                decoder: str = "auto", strict: bool = False) -> Iterator[Frame]:
    """Decodes the frames of a raw MJPEG stream in order: `source` is a bytes-like object (cut
    with split_mjpeg) or a binary file object opened for reading (a file, a pipe, a socket's
    makefile("rb")), read in pieces as the frames come.

    on_error: what a frame that raises DecodeError does: "raise" ends the iteration with it,
        "skip" leaves the frame out, "yield" yields the exception in the frame's place (a
        FrameFailed's `frame` holds the planes).
    Other keywords as for decode_i420.
    """
    if on_error not in ("raise", "skip", "yield"):
        raise ValueError(f"on_error must be 'raise', 'skip' or 'yield', not {on_error!r}")
    try:
        frames = split_mjpeg(source)
    except TypeError:
        if not hasattr(source, "read"):
            raise TypeError("source must be a bytes-like object or a binary file object, not "
                            f"{type(source).__name__}") from None
        frames = _read_frames(source, 1 << 16)
    return _decode_all(frames, on_error,
                       {"fallback": fallback, "decoder": decoder, "strict": strict})


def set_log_level(level: int, channel: Optional[str] = None) -> None:
    """Library messages up to `level` are passed on (1 broken invariants, 2 why a frame was
    refused or failed, 3 unhandled markers, up to 8 detail); 0 silences them. `channel` is
    "mjpeg" for the decoders, None for every channel without a level of its own."""
    _core.set_log_level(level, channel)


def log_level(channel: Optional[str] = None) -> int:
    """The library's log level for `channel` (the default level for None)."""
    return _core.log_level(channel)


def _log(level, channel, file, line, text):
    pylevel = _LOG_LEVELS.get(level, logging.DEBUG)
    if logger.isEnabledFor(pylevel):
        logger.log(pylevel, "%s", text,
                   extra={"vidra_level": level, "vidra_channel": channel,
                          "vidra_source": f"{file}:{line}"})


_core.set_log_handler(_log)
