"""Streams: split_mjpeg, iter_decode over buffers and files, and PyAV's container packets."""

import io
import mmap

import pytest

import vidra_mjpeg as vm
from conftest import corpus_frame, ffmpeg_frame

# Frames with junk between them, and the outcome of each: a status, or the exception.
PARTS = [("webcam-480p/again-00.jpg", vm.Status.CLEAN),
         ("damaged/flip-again-00.jpg", vm.Status.CONCEALED),
         ("damaged/flip-again-01.jpg", vm.FrameFailed),
         ("reftest/rgb.jpg", vm.FrameRefused),
         ("webcam-720p/book-02.jpg", vm.Status.CLEAN)]


@pytest.fixture(scope="module")
def stream():
    frames = [corpus_frame(name) for name, _ in PARTS]
    return frames, b"junk".join([b""] + frames + [b"\xff\xd8\xff"])


class Trickle(io.RawIOBase):
    """A pipe that hands out at most 7 bytes per read."""

    def __init__(self, data):
        self.source = io.BytesIO(data)

    def readable(self):
        return True

    def readinto(self, buffer):
        return self.source.readinto(memoryview(buffer)[:7])


def test_split_mjpeg_is_zero_copy(stream, tmp_path):
    frames, data = stream
    source = bytearray(data)
    views = list(vm.split_mjpeg(source))
    # The frames, then the last SOI that the data ends in, cut short.
    assert [bytes(v) for v in views] == frames + [b"\xff\xd8\xff"]
    assert all(v.obj is source for v in views)
    path = tmp_path / "stream.mjpeg"
    path.write_bytes(data)
    with open(path, "rb") as f, mmap.mmap(f.fileno(), 0, access=mmap.ACCESS_READ) as mapped:
        assert [bytes(v) for v in vm.split_mjpeg(mapped)] == frames + [b"\xff\xd8\xff"]
    for bad, error in ((memoryview(data)[::2], ValueError), (42, TypeError)):
        with pytest.raises(error):
            vm.split_mjpeg(bad)
    with pytest.raises(ValueError, match="on_error"):
        vm.iter_decode(data, on_error="ignore")
    with pytest.raises(TypeError, match="file object"):
        vm.iter_decode(3.5)


@pytest.mark.parametrize("reader", [bytes, io.BytesIO, lambda d: io.BufferedReader(Trickle(d))],
                         ids=["bytes", "file", "trickle"])
@pytest.mark.parametrize("on_error", ["raise", "skip", "yield"])
def test_iter_decode(stream, reader, on_error):
    expected = [outcome for _, outcome in PARTS] + [vm.FrameRefused]
    got = []
    try:
        for item in vm.iter_decode(reader(stream[1]), on_error=on_error, decoder="own"):
            got.append(type(item) if isinstance(item, vm.DecodeError) else item.status)
    except vm.DecodeError as error:
        got.append(type(error))
    if on_error == "raise":
        assert got == expected[:3]
    else:
        assert got == [e for e in expected if on_error == "yield" or isinstance(e, vm.Status)]


def test_pyav_container_packets(tmp_path):
    av = pytest.importorskip("av")
    path = ffmpeg_frame(tmp_path, "320x240", "yuvj420p", source="testsrc", frames=5,
                        suffix=".avi")
    decoded = 0
    with av.open(str(path)) as container:
        for packet in container.demux(video=0):
            if packet.size == 0:  # the demuxer's flush packet
                continue
            frame = vm.decode_i420(packet)
            assert (frame.status, frame.width, frame.height) == (vm.Status.CLEAN, 320, 240)
            decoded += 1
    assert decoded == 5
