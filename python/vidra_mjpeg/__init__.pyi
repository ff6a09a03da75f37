import enum
import logging
import sys
from typing import BinaryIO, Iterator, Literal, NamedTuple, Optional, Union

import numpy as np
import numpy.typing as npt

if sys.version_info >= (3, 12):
    from collections.abc import Buffer
else:
    from typing_extensions import Buffer

logger: logging.Logger

class Status(enum.IntEnum):
    CLEAN = 0
    CONCEALED = 1
    FAILED = 2
    REFUSED = 3

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
    def text(self) -> str: ...

class Path(enum.IntEnum):
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

class Header(NamedTuple):
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

_Plane = npt.NDArray[np.uint8]

class Frame:
    buffer: _Plane
    width: int
    height: int
    status: Status
    reason: Reason
    path: Path
    total_mcus: int
    valid_mcus: int
    @property
    def y(self) -> _Plane: ...
    @property
    def u(self) -> _Plane: ...
    @property
    def v(self) -> _Plane: ...
    @property
    def image(self) -> _Plane: ...

class DecodeError(ValueError):
    status: Status
    reason: Reason
    frame: Optional[Frame]
    def __init__(
        self, message: str, status: Status, reason: Reason, frame: Optional[Frame] = ...
    ) -> None: ...

class FrameRefused(DecodeError): ...
class FrameFailed(DecodeError): ...

def i420_nbytes(width: int, height: int) -> int: ...
def read_header(data: Buffer) -> Header: ...
def decode_i420(
    data: Buffer,
    *,
    out: Optional[Buffer] = ...,
    fallback: bool = ...,
    decoder: Literal["auto", "own", "turbo"] = ...,
    strict: bool = ...,
) -> Frame: ...
def split_mjpeg(buffer: Buffer) -> Iterator[memoryview]: ...
def iter_decode(
    source: Union[Buffer, BinaryIO],
    *,
    on_error: Literal["raise", "skip", "yield"] = ...,
    fallback: bool = ...,
    decoder: Literal["auto", "own", "turbo"] = ...,
    strict: bool = ...,
) -> Iterator[Union[Frame, DecodeError]]: ...
def set_log_level(level: int, channel: Optional[str] = ...) -> None: ...
def log_level(channel: Optional[str] = ...) -> int: ...
