"""Shared helpers: the corpus, frames made by ffmpeg at test time, and the library's C interface
through ctypes as the reference that the module's planes must equal."""

import ctypes
import os
import pathlib
import shutil
import subprocess

import numpy as np
import pytest

import vidra_mjpeg

CORPUS = pathlib.Path(os.environ.get(
    "VIDRA_CORPUS_DIR", pathlib.Path(__file__).resolve().parents[3] / "shared" / "corpus"))


def corpus_frame(relative):
    path = CORPUS / relative
    if not path.exists():
        pytest.skip(f"corpus frame {path} not found")
    return path.read_bytes()


def ffmpeg_frame(tmp_path, size, pix_fmt, source="testsrc2", frames=1, suffix=".jpg"):
    """A frame (or an MJPEG file of `frames` frames) encoded by FFmpeg's mjpeg encoder."""
    if shutil.which("ffmpeg") is None:
        pytest.skip("ffmpeg not installed")
    out = tmp_path / f"{source}-{size}-{pix_fmt}-{frames}{suffix}"
    subprocess.run(["ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", f"{source}=size={size}",
                    "-frames:v", str(frames), "-c:v", "mjpeg", "-pix_fmt", pix_fmt, "-q:v", "3",
                    str(out)], check=True)
    return out.read_bytes() if suffix == ".jpg" else out


class _Report(ctypes.Structure):  # vidra_mjpeg_report, with room for its header (unread)
    _fields_ = [(name, ctypes.c_int32) for name in (
        "status", "path", "reason", "total_mcus", "valid_mcus")]
    _fields_.append(("header", ctypes.c_uint8 * 256))


@pytest.fixture(scope="session")
def c_decode():
    """vidra_mjpeg_decode() of the library that the module loaded (dlopen finds it by its soname),
    with fallback on: decode(data, decoder) gives the packed planes and the report."""
    lib = ctypes.CDLL("libvidra_mjpeg.so.0")

    def decode(data, decoder):
        try:
            w, h = vidra_mjpeg.read_header(data)[:2]
        except vidra_mjpeg.DecodeError:
            w = h = 0
        if w < 1 or h < 1:
            return None, None
        planes = np.zeros(vidra_mjpeg.i420_nbytes(w, h), np.uint8)
        y = planes.ctypes.data
        u, v = y + w * h, y + w * h + (w // 2) * (h // 2)
        # vidra_mjpeg_options: decoder, insert_dht, fallback, then reserved fields left zero.
        options, report = (ctypes.c_int32 * 16)(decoder, 1, 1), _Report()
        lib.vidra_mjpeg_decode(data, ctypes.c_size_t(len(data)), w, h, ctypes.c_void_p(y), w,
                               ctypes.c_void_p(u), w // 2, ctypes.c_void_p(v), w // 2, options,
                               ctypes.byref(report))
        return planes, report
    return decode
