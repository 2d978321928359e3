"""Phone extractor speed through the Python call: microseconds per 10 ms frame
(median and 99th percentile over 2000 frames after 200 warm-up frames) and the
real-time factor 10 ms / median. Weights are random, from the test reference's
writer.

    python3 bench/bench_phone.py [build-dir]      (default build/phone)
"""
import os
import sys
import tempfile
import time

import numpy as np

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(ROOT, "build", "phone")))
sys.path.insert(0, os.path.join(ROOT, "tests"))

import corvina  # noqa: E402
from reference import phone  # noqa: E402
from signals import frames, speech_like  # noqa: E402

WARM_UP, FRAMES = 200, 2000


def main():
    with tempfile.TemporaryDirectory() as d:
        path = os.path.join(d, "phone.bin")
        phone.write_parameters(phone.random_parameters(1), path)
        model = corvina.PhoneExtractor()
        model.read_parameters(path)
    context = model.new_context(1)
    rows = frames(speech_like(WARM_UP + FRAMES, seed=1))
    micros = []
    for i, x in enumerate(rows):
        start = time.perf_counter_ns()
        model(x, context)
        stop = time.perf_counter_ns()
        if i >= WARM_UP:
            micros.append((stop - start) / 1000.0)
    median, p99 = np.median(micros), np.percentile(micros, 99)
    print(f"PhoneExtractor.__call__: median {median:.1f} us/frame, p99 {p99:.1f} us/frame, "
          f"real-time factor {10000.0 / median:.1f} ({FRAMES} frames)")


if __name__ == "__main__":
    main()
