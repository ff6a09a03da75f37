#!/usr/bin/python3
"""Frames/s of vidra_mjpeg.decode_i420 beside OpenCV's cv2.imdecode and PyAV's mjpeg decoder,
on the corpus frames held in memory, measured in the same run; then decode_i420 on 1 and 2
threads.

    PYTHONPATH=build/default/python /usr/bin/python3 bench/python_bench.py [--time 1] [DIR...]

Each decoder gets the same frames; the decoders take turns in rounds of --time seconds and a
decoder's figure is its best round (of --rounds), the least disturbed by other work on the
machine. "cores busy" is the process's CPU time over the wall time of that round: a second
thread that found no free core shows as such. What each produces differs: decode_i420 I420
planes, cv2.imdecode a BGR picture (colour conversion included, as OpenCV users get it), PyAV
a frame in the stream's own format (4:2:2 here, no conversion: its cheapest output).
"""

import argparse
import pathlib
import sys
import threading
import time

import vidra_mjpeg

try:
    import cv2
except ImportError:
    cv2 = None
try:
    import av
except ImportError:
    av = None

CORPUS = pathlib.Path(__file__).resolve().parents[2] / "shared" / "corpus"


def vidra_decoder(decoder):
    def make():
        return lambda data: vidra_mjpeg.decode_i420(data, decoder=decoder)
    return make


def vidra_out_decoder():
    out = bytearray(64 << 20)
    return lambda data: vidra_mjpeg.decode_i420(data, out=out)


def cv2_decoder():
    import numpy as np
    return lambda data: cv2.imdecode(np.frombuffer(data, np.uint8), cv2.IMREAD_COLOR)


def pyav_decoder():
    codec = av.CodecContext.create("mjpeg", "r")
    codec.thread_count = 1
    return lambda data: codec.decode(av.Packet(data))


def run_for(decode, frames, seconds):
    """Decodes the frames round and round for `seconds`; returns frames decoded and the time."""
    count, start = 0, time.perf_counter()
    deadline = start + seconds
    while True:
        for frame in frames:
            decode(frame)
        count += len(frames)
        now = time.perf_counter()
        if now >= deadline:
            return count, now - start


def threaded(make, frames, seconds, threads):
    """Frames/s of `threads` threads at once, each with its own decoder and its own frame order,
    and the cores they kept busy (process CPU time over wall time)."""
    results = [None] * threads
    barrier = threading.Barrier(threads)

    def work(i):
        decode = make()
        rotated = frames[i * len(frames) // threads:] + frames[:i * len(frames) // threads]
        barrier.wait()
        results[i] = run_for(decode, rotated, seconds)

    workers = [threading.Thread(target=work, args=(i,)) for i in range(threads)]
    cpu, wall = time.process_time(), time.perf_counter()
    for w in workers:
        w.start()
    for w in workers:
        w.join()
    cores = (time.process_time() - cpu) / (time.perf_counter() - wall)
    return sum(c for c, _ in results) / max(t for _, t in results), cores


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("dirs", nargs="*", type=pathlib.Path,
                        default=[CORPUS / "webcam-480p", CORPUS / "webcam-720p"])
    parser.add_argument("--time", type=float, default=1.0, help="seconds per round")
    parser.add_argument("--rounds", type=int, default=3)
    args = parser.parse_args()
    vidra_mjpeg.set_log_level(0)

    decoders = [("decode_i420", vidra_decoder("auto")), ("decode_i420 out=", vidra_out_decoder)]
    if cv2 is not None:
        cv2.setNumThreads(1)
        decoders.append(("cv2.imdecode", cv2_decoder))
    else:
        print("OpenCV (python3-opencv) missing: cv2.imdecode not measured", file=sys.stderr)
    if av is not None:
        decoders.append(("PyAV mjpeg", pyav_decoder))
    else:
        print("PyAV (python3-av) missing: its decoder not measured", file=sys.stderr)

    print("| frames | decoder | threads | frames/s | MP/s | vs decode_i420 1 thread | cores busy |")
    print("|---|---|---|---|---|---|---|")
    for folder in args.dirs:
        frames = [f.read_bytes() for f in sorted(folder.glob("*.jpg"))]
        if not frames:
            print(f"no frames in {folder}", file=sys.stderr)
            continue
        header = vidra_mjpeg.read_header(frames[0])
        pixels = header.width * header.height
        rows = [(name, make, 1) for name, make in decoders]
        rows.append(("decode_i420", decoders[0][1], 2))
        if cv2 is not None:
            rows.append(("cv2.imdecode", cv2_decoder, 2))
        best = {}
        for _ in range(args.rounds):
            for name, make, threads in rows:
                result = threaded(make, frames, args.time, threads)
                best[name, threads] = max(best.get((name, threads), (0.0, 0.0)), result)
        base = best["decode_i420", 1][0]
        for name, _, threads in rows:
            rate, cores = best[name, threads]
            print(f"| {header.width}x{header.height} | {name} | {threads} | {rate:.0f} | "
                  f"{rate * pixels / 1e6:.0f} | {rate / base:.2f} | {cores:.2f} |")


if __name__ == "__main__":
    main()
