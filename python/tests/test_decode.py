"""decode_i420 and read_header against the library's C interface, buffers, errors, the GIL."""

import array
import concurrent.futures
import logging
import mmap
import resource
import sys
import threading
import tracemalloc

import numpy as np
import pytest

import vidra_mjpeg as vm
from conftest import corpus_frame, ffmpeg_frame

S, R, P = vm.Status, vm.Reason, vm.Path


# One frame of each outcome: the C++ tests check the library's decoding over the whole corpus.
@pytest.mark.parametrize("decoder", ["auto", "own", "turbo"])
@pytest.mark.parametrize("name", [
    "webcam-720p/book-03.jpg", "reftest/jpg-size-17x17.jpg", "damaged/flip-again-00.jpg",
    "damaged/trunc-again-00.jpg", "reftest/jpg-progressive.jpg", "reftest/rgb.jpg"])
def test_planes_and_report_equal_the_c_interface(name, decoder, c_decode):
    data = corpus_frame(name)
    planes, report = c_decode(data, ["auto", "own", "turbo"].index(decoder))
    try:
        frame = vm.decode_i420(data, decoder=decoder)
    except vm.DecodeError as error:
        assert (error.status, error.reason) == (report.status, report.reason)
        assert isinstance(error, vm.FrameRefused) == (error.frame is None) == (
            report.status == S.REFUSED)
        if error.frame is None:
            return
        frame = error.frame
    assert (frame.status, frame.reason, frame.path, frame.total_mcus, frame.valid_mcus) == (
        report.status, report.reason, report.path, report.total_mcus, report.valid_mcus)
    w, h = frame.width, frame.height
    assert frame.y.shape == (h, w) and frame.u.shape == frame.v.shape == (h // 2, w // 2)
    assert np.array_equal(np.concatenate([p.ravel() for p in (frame.y, frame.u, frame.v)]), planes)


# The exception classes, and options that change the outcome; the statuses, reasons and paths
# of the plain calls are those of the C interface (test_planes_and_report_equal_the_c_interface).
@pytest.mark.parametrize("name, options, outcome, reason, path", [
    ("damaged/flip-again-00.jpg", {"strict": True}, vm.FrameFailed, R.NONE, P.OWN),
    ("damaged/trunc-again-00.jpg", {}, vm.FrameFailed, R.NONE, P.OWN),
    ("reftest/jpg-progressive.jpg", {"fallback": False}, vm.FrameRefused,
     R.UNSUPPORTED_PROCESS, None),
])
def test_exceptions(name, options, outcome, reason, path):
    with pytest.raises(outcome) as caught:
        vm.decode_i420(corpus_frame(name), decoder="own", **options)
    error, frame = caught.value, caught.value.frame
    assert type(error) is outcome and isinstance(error, ValueError) and str(error)
    assert error.reason == reason and (frame is None) == (outcome is vm.FrameRefused)
    assert frame is None or (frame.reason, frame.path) == (reason, path)


def test_read_header_and_views():
    data = corpus_frame("webcam-480p/again-01.jpg")
    header = vm.read_header(data)
    assert header[:5] == (640, 480, vm.Subsampling.S422, False, vm.ColourSpace.YCBCR)
    assert (header.h_factors, header.v_factors, header.has_dht) == ((2, 1, 1), (1, 1, 1), False)
    for bad, reason in ((b"GIF89a", R.NOT_JPEG), (b"\xff\xd8\xff", R.BAD_HEADER)):
        with pytest.raises(vm.FrameRefused) as caught:
            vm.read_header(bad)
        assert caught.value.reason == reason
    frame = vm.decode_i420(data)
    assert frame.image.shape == (720, 640) and np.shares_memory(frame.image, frame.v)
    cv2 = pytest.importorskip("cv2")
    assert cv2.cvtColor(frame.image, cv2.COLOR_YUV2BGR_I420).shape == (480, 640, 3)
    odd = vm.decode_i420(corpus_frame("reftest/jpg-size-17x17.jpg"))
    assert odd.u.shape == (8, 8) and odd.buffer.size == vm.i420_nbytes(17, 17) == 289 + 128
    with pytest.raises(ValueError, match="odd size"):
        odd.image


def test_out_is_reused_and_checked():
    a, b = corpus_frame("webcam-480p/again-00.jpg"), corpus_frame("webcam-480p/book-03.jpg")
    out = np.zeros((720, 640), np.uint8)
    assert np.shares_memory(vm.decode_i420(b, out=out).y, out)
    frame = vm.decode_i420(a, out=out)
    assert np.array_equal(out.ravel(), vm.decode_i420(a).buffer) and frame.image.base is not None
    raw = bytearray(vm.i420_nbytes(640, 480) + 10)
    frame = vm.decode_i420(a, out=raw)
    with pytest.raises(BufferError):  # the planes keep the bytearray from being resized
        raw.extend(b"x")
    for bad, message in ((np.zeros(1000, np.uint8), "holds 1000 bytes"), (bytes(460800),
                         "writable"), (np.zeros((720, 1280), np.uint8)[:, ::2], "contiguous")):
        with pytest.raises(ValueError, match=message):
            vm.decode_i420(a, out=bad)


def test_buffer_types(tmp_path):
    data = corpus_frame("webcam-480p/again-02.jpg")
    expected = vm.decode_i420(data).buffer
    (tmp_path / "f.jpg").write_bytes(b"junk" + data)
    with open(tmp_path / "f.jpg", "rb") as f, mmap.mmap(f.fileno(), 0,
                                                        access=mmap.ACCESS_READ) as mapped:
        for source in (bytearray(data), memoryview(data), np.frombuffer(data, np.uint8),
                       memoryview(mapped)[4:], array.array("B", data)):
            assert np.array_equal(vm.decode_i420(source).buffer, expected)
        del source
    for bad, error in ((np.frombuffer(data * 2, np.uint8)[::2], ValueError),
                       (memoryview(data * 2)[::2], ValueError), ("text", TypeError)):
        with pytest.raises(error):
            vm.decode_i420(bad)


@pytest.mark.parametrize("decoder", ["auto", "turbo"])
def test_bad_input_raises_a_decode_error(decoder):
    frame = corpus_frame("reftest/jpg-size-33x33.jpg")
    # Damage itself is the C++ tests' business; here each outcome must come out as a Frame or a
    # DecodeError with a Reason.
    cases = [b"", b"\xff", b"\xff\xd8", b"\xff\xd8\xff\xd9", b"\x00" * 100]
    for data in cases + [frame[:n] for n in range(0, min(len(frame), 700), 7)]:
        try:
            assert vm.decode_i420(data, decoder=decoder).status in (S.CLEAN, S.CONCEALED)
        except vm.DecodeError as error:
            assert isinstance(error.reason, vm.Reason) and str(error)
    sof = frame.index(b"\xff\xc0")  # a header claiming 65535x65535 over a few hundred bytes
    with pytest.raises(vm.FrameRefused, match="too large"):
        vm.decode_i420(frame[:sof + 5] + b"\xff" * 4 + frame[sof + 9:], decoder=decoder)
    with pytest.raises(ValueError, match="decoder"):
        vm.decode_i420(frame, decoder="fast")


def test_logging_goes_to_python_in_the_decoding_thread(caplog, capfd):
    frames = [corpus_frame(n) for n in ("webcam-720p/book-01.jpg", "damaged/flip-again-00.jpg",
                                        "reftest/jpg-progressive.jpg", "reftest/rgb.jpg")]
    frames = (frames + [frames[0][:100]]) * 8  # the last is truncated: refused and logged

    def outcome(data):
        try:
            return vm.decode_i420(data).buffer.tobytes()
        except vm.DecodeError as error:
            return error.reason

    outcome(frames[0])  # hands on lines still waiting from the C interface's calls
    with caplog.at_level(logging.DEBUG, logger="vidra_mjpeg"):
        serial = [outcome(f) for f in frames]
        logged = len(caplog.records)
        caplog.clear()
        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            assert list(pool.map(outcome, frames)) == serial
        assert logged > 0 and len(caplog.records) == logged
        assert all(r.threadName.startswith("ThreadPoolExecutor") for r in caplog.records)
        caplog.clear()
        old = vm.log_level("mjpeg")
        vm.set_log_level(0, "mjpeg")
        try:
            outcome(frames[-1])
        finally:
            vm.set_log_level(old, "mjpeg")
        assert not caplog.records
    assert capfd.readouterr().err == ""


def test_no_leak_over_10000_decodes():
    clean = corpus_frame("reftest/jpg-size-33x33.jpg")
    failed = corpus_frame("damaged/trunc-again-01.jpg")[:2000]
    out = bytearray(vm.i420_nbytes(33, 33))

    def run(count):
        for i in range(count):
            vm.decode_i420(bytearray(clean), out=out if i % 2 else None)  # fresh objects: a
            for bad in (failed, b"\xff\xd8junk"):  # reference kept would show
                with pytest.raises(vm.DecodeError):
                    vm.decode_i420(bytearray(bad))

    run(300)
    tracemalloc.start()
    rss = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
    before = tracemalloc.get_traced_memory()[0]
    run(10000)
    grown = tracemalloc.get_traced_memory()[0] - before
    tracemalloc.stop()
    assert grown < 256 * 1024, f"{grown} bytes still traced after 10,000 decodes"
    assert resource.getrusage(resource.RUSAGE_SELF).ru_maxrss - rss < 16 * 1024  # KiB


def test_gil_released_while_decoding(tmp_path):
    data = ffmpeg_frame(tmp_path, "4096x2160", "yuvj420p")
    ticks, advanced, stop = 0, 0, threading.Event()

    def count():
        nonlocal ticks
        while not stop.wait(0.0005):
            ticks += 1

    # No forced switches: the counter runs only while the main thread has released the GIL.
    interval = sys.getswitchinterval()
    sys.setswitchinterval(100)
    thread = threading.Thread(target=count)
    try:
        thread.start()
        for _ in range(3):
            before = ticks
            vm.decode_i420(data)
            advanced += ticks - before
    finally:
        stop.set()
        thread.join()
        sys.setswitchinterval(interval)
    assert advanced > 0
