"""Phone extractor speed through the Python call: microseconds per 10 ms frame
(median and 99th percentile over 2000 frames after 200 warm-up frames) and the
real-time factor 10 ms / median. Weights are random, from write_test_model.

    python3 bench/bench_phone.py [build-dir]      (default build/phone)
"""
import os
import sys
import tempfile
import time

import numpy as np

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(ROOT, "build", "phone")))
sys.path.insert(0, os.path.join(ROOT, "python"))

from corvina_tools import ModelSet, write_test_model  # noqa: E402
from corvina_tools.speech import speech_frames  # noqa: E402

WARM_UP, FRAMES = 200, 2000


def main():
    with tempfile.TemporaryDirectory() as d:
        model = ModelSet.load(write_test_model(d, seed=1)).phone
    context = model.new_context(1)
    rows = speech_frames(WARM_UP + FRAMES, seed=1)
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
