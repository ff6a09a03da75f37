"""decode_i420 and read_header against the library's C interface, buffers, errors, the GIL."""

import array
import concurrent.futures
import logging
import mmap
import random
import threading
import sys
import tracemalloc

import numpy as np
import pytest

import vidra_mjpeg as vm
from conftest import corpus_files, corpus_frame, ffmpeg_frame

ALL_FRAMES = corpus_files("webcam-480p", "webcam-720p", "damaged", "reftest")
DECODERS = {"auto": 0, "own": 1, "turbo": 2}


@pytest.mark.parametrize("decoder", DECODERS)
@pytest.mark.parametrize("path", ALL_FRAMES)
def test_planes_and_report_equal_the_c_interface(path, decoder, c_interface):
    data = path.read_bytes()
    planes, report = c_interface.decode(data, DECODERS[decoder], fallback=True)
    try:
        frame = vm.decode_i420(data, decoder=decoder)
    except vm.DecodeError as error:
        assert report.status == error.status and report.reason == error.reason
        frame = error.frame
        if frame is None:
            assert error.status == vm.Status.REFUSED and isinstance(error, vm.FrameRefused)
            return
    assert (frame.status, frame.reason, frame.path, frame.total_mcus, frame.valid_mcus) == (
        report.status, report.reason, report.path, report.total_mcus, report.valid_mcus)
    w, h = frame.width, frame.height
    assert frame.y.shape == (h, w) and frame.u.shape == frame.v.shape == (h // 2, w // 2)
    assert np.array_equal(np.concatenate([p.ravel() for p in (frame.y, frame.u, frame.v)]), planes)
    assert np.shares_memory(frame.y, frame.buffer)


@pytest.mark.parametrize("relative, status, reason, path", [
    ("webcam-480p/again-00.jpg", vm.Status.CLEAN, vm.Reason.NONE, vm.Path.OWN),
    ("damaged/flip-again-00.jpg", vm.Status.CONCEALED, vm.Reason.NONE, vm.Path.OWN),
    ("damaged/trunc-again-00.jpg", vm.Status.FAILED, vm.Reason.NONE, vm.Path.OWN),
    ("reftest/rgb.jpg", vm.Status.REFUSED, vm.Reason.UNSUPPORTED_COLOUR_SPACE, vm.Path.NONE),
    ("reftest/jpg-progressive.jpg", vm.Status.CLEAN, vm.Reason.NONE, vm.Path.TURBO_FALLBACK),
])
def test_statuses_and_exceptions(relative, status, reason, path):
    data = corpus_frame(relative)
    if status in (vm.Status.CLEAN, vm.Status.CONCEALED):
        frame = vm.decode_i420(data, decoder="own")
        assert (frame.status, frame.reason, frame.path) == (status, reason, path)
    if status != vm.Status.CLEAN:
        expected = vm.FrameRefused if status == vm.Status.REFUSED else vm.FrameFailed
        with pytest.raises(expected) as caught:
            vm.decode_i420(data, decoder="own", strict=True)
        assert (caught.value.status, caught.value.reason) == (status, reason)
        assert isinstance(caught.value, ValueError)
        assert (caught.value.frame is None) == (status == vm.Status.REFUSED)


def test_fallback_decodes_ffmpeg_422(tmp_path):
    data = ffmpeg_frame(tmp_path, "320x240", "yuvj422p")
    header = vm.read_header(data)
    assert (header.h_factors, header.v_factors) == ((2, 1, 1), (2, 2, 2))
    with pytest.raises(vm.FrameRefused) as caught:
        vm.decode_i420(data, decoder="own", fallback=False)
    assert caught.value.reason == vm.Reason.UNSUPPORTED_LAYOUT
    frame = vm.decode_i420(data, decoder="own")
    assert (frame.status, frame.path) == (vm.Status.CLEAN, vm.Path.TURBO_FALLBACK)
    assert np.array_equal(frame.buffer, vm.decode_i420(data, decoder="turbo").buffer)


def test_read_header():
    header = vm.read_header(corpus_frame("webcam-480p/again-01.jpg"))
    assert header[:4] == (640, 480, vm.Subsampling.S422, False)
    assert (header.colour_space, header.h_factors, header.has_dht) == (
        vm.ColourSpace.YCBCR, (2, 1, 1), False)
    for data, reason in ((b"GIF89a", vm.Reason.NOT_JPEG), (b"\xff\xd8\xff", vm.Reason.BAD_HEADER)):
        with pytest.raises(vm.FrameRefused) as caught:
            vm.read_header(data)
        assert caught.value.reason == reason


def test_image_view_and_odd_sizes():
    frame = vm.decode_i420(corpus_frame("webcam-480p/again-00.jpg"))
    assert frame.image.shape == (720, 640) and np.shares_memory(frame.image, frame.buffer)
    cv2 = pytest.importorskip("cv2")
    assert cv2.cvtColor(frame.image, cv2.COLOR_YUV2BGR_I420).shape == (480, 640, 3)
    odd = vm.decode_i420(corpus_frame("reftest/jpg-size-17x17.jpg"))
    assert odd.u.shape == (8, 8) and odd.buffer.size == vm.i420_nbytes(17, 17) == 289 + 128
    with pytest.raises(ValueError, match="odd size"):
        odd.image


def test_out_is_reused_and_checked():
    a, b = corpus_frame("webcam-480p/again-00.jpg"), corpus_frame("webcam-480p/book-03.jpg")
    out = np.zeros((720, 640), np.uint8)
    frame_b = vm.decode_i420(b, out=out)
    assert np.shares_memory(frame_b.y, out)
    expected_a = vm.decode_i420(a).buffer
    frame_a = vm.decode_i420(a, out=out)
    assert np.array_equal(out.reshape(-1), expected_a) and np.array_equal(frame_a.image, out)
    with pytest.raises(vm.FrameRefused):
        vm.decode_i420(corpus_frame("reftest/rgb.jpg"), out=np.zeros(500 * 334 * 2, np.uint8))
    # A bytearray under a frame's planes can't be resized away.
    raw = bytearray(vm.i420_nbytes(640, 480) + 10)
    frame = vm.decode_i420(a, out=raw)
    with pytest.raises(BufferError):
        raw.extend(b"x")
    assert bytes(raw[:16]) == frame.buffer[:16].tobytes()
    for bad, message in ((np.zeros(1000, np.uint8), "holds 1000 bytes"),
                         (bytes(460800), "writable"), (np.zeros((720, 1280), np.uint8)[:, ::2],
                                                       "contiguous")):
        with pytest.raises(ValueError, match=message):
            vm.decode_i420(a, out=bad)


def test_buffer_types(tmp_path):
    data = corpus_frame("webcam-480p/again-02.jpg")
    expected = vm.decode_i420(data).buffer
    path = tmp_path / "frame.jpg"
    path.write_bytes(b"junk" + data)
    with open(path, "rb") as f, mmap.mmap(f.fileno(), 0, access=mmap.ACCESS_READ) as mapped:
        inputs = [bytearray(data), memoryview(data), np.frombuffer(data, np.uint8),
                  memoryview(mapped)[4:], array.array("B", data)]
        for source in inputs:
            assert np.array_equal(vm.decode_i420(source).buffer, expected)
        del source, inputs
    strided = np.frombuffer(data * 2, np.uint8)[::2]
    for bad, error in ((strided, ValueError), (memoryview(data * 2)[::2], ValueError),
                       ("text", TypeError), ([0xFF, 0xD8], TypeError)):
        with pytest.raises(error):
            vm.decode_i420(bad)


def _bad_inputs():
    frame = corpus_frame("reftest/jpg-size-33x33.jpg")
    rng = random.Random(16)
    cases = [b"", b"\xff", b"\xff\xd8", b"\xff\xd8\xff\xd9", b"\x00" * 100]
    cases += [frame[:n] for n in range(0, min(len(frame), 700), 7)]
    for _ in range(300):
        damaged = bytearray(frame)
        for _ in range(rng.randint(1, 8)):
            damaged[rng.randrange(len(damaged))] = rng.randrange(256)
        cases.append(bytes(damaged))
    # A header that claims 65535x65535 over a few hundred bytes.
    sof = frame.index(b"\xff\xc0")
    cases.append(frame[:sof + 5] + b"\xff\xff\xff\xff" + frame[sof + 9:])
    return cases


@pytest.mark.parametrize("decoder", ["auto", "turbo"])
def test_bad_input_raises_a_decode_error(decoder):
    for data in _bad_inputs():
        try:
            frame = vm.decode_i420(data, decoder=decoder)
            assert frame.status in (vm.Status.CLEAN, vm.Status.CONCEALED)
        except vm.DecodeError as error:
            assert isinstance(error.reason, vm.Reason) and str(error)
    with pytest.raises(vm.FrameRefused) as caught:
        vm.decode_i420(_bad_inputs()[-1], decoder=decoder)
    assert caught.value.reason == vm.Reason.TOO_LARGE
    with pytest.raises(ValueError, match="decoder"):
        vm.decode_i420(b"\xff\xd8", decoder="fast")


def test_refusals_go_to_logging_not_stderr(caplog, capfd):
    data = corpus_frame("reftest/rgb.jpg")
    truncated = corpus_frame("webcam-480p/again-00.jpg")[:100]
    with caplog.at_level(logging.DEBUG, logger="vidra_mjpeg"):
        for source in (data, truncated):
            with pytest.raises(vm.FrameRefused):
                vm.decode_i420(source, decoder="own", fallback=False)
    assert caplog.records and all(r.name == "vidra_mjpeg" for r in caplog.records)
    assert capfd.readouterr().err == ""
    caplog.clear()
    old = vm.log_level("mjpeg")
    vm.set_log_level(0, "mjpeg")
    try:
        with caplog.at_level(logging.DEBUG, logger="vidra_mjpeg"), pytest.raises(vm.FrameRefused):
            vm.decode_i420(truncated, decoder="own", fallback=False)
        assert not caplog.records
    finally:
        vm.set_log_level(old, "mjpeg")


def test_no_leak_over_10000_decodes():
    import resource
    clean = corpus_frame("reftest/jpg-size-33x33.jpg")
    failed = corpus_frame("damaged/trunc-again-01.jpg")[:2000]
    out = bytearray(vm.i420_nbytes(33, 33))

    def run(count):
        for i in range(count):
            vm.decode_i420(bytearray(clean), out=out if i % 2 else None)
            for bad in (failed, b"\xff\xd8junk"):
                try:
                    vm.decode_i420(bytearray(bad))
                except vm.DecodeError:
                    pass

    run(300)
    tracemalloc.start()
    rss = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
    before = tracemalloc.get_traced_memory()[0]
    run(10000)
    grown = tracemalloc.get_traced_memory()[0] - before
    tracemalloc.stop()
    assert grown < 256 * 1024, f"{grown} bytes still traced after 10,000 decodes"
    assert resource.getrusage(resource.RUSAGE_SELF).ru_maxrss - rss < 16 * 1024  # KiB


def test_threads_decode_at_once_as_one_does(caplog):
    frames = [corpus_frame(name) for name in (
        "webcam-480p/again-00.jpg", "webcam-720p/book-01.jpg", "damaged/flip-again-00.jpg",
        "reftest/jpg-progressive.jpg", "reftest/rgb.jpg")]
    frames = (frames + [frames[0][:100]]) * 8

    def outcome(data):
        try:
            return vm.decode_i420(data).buffer.tobytes()
        except vm.DecodeError as error:
            return error.reason

    with caplog.at_level(logging.DEBUG, logger="vidra_mjpeg"):
        serial = [outcome(f) for f in frames]
        logged = len(caplog.records)
        caplog.clear()
        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            assert list(pool.map(outcome, frames)) == serial
    # The same lines, each in the thread that decoded its frame.
    assert logged > 0 and len(caplog.records) == logged
    assert all(r.threadName.startswith("ThreadPoolExecutor") for r in caplog.records)


def test_gil_released_while_decoding(tmp_path):
    data = ffmpeg_frame(tmp_path, "4096x2160", "yuvj420p")
    ticks = 0
    stop = threading.Event()

    def count():
        nonlocal ticks
        while not stop.wait(0.0005):
            ticks += 1

    # No forced switches: the counter runs only while the main thread has released the GIL.
    interval = sys.getswitchinterval()
    sys.setswitchinterval(100)
    thread = threading.Thread(target=count)
    advanced = 0
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
