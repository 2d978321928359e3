"""Per-frame cost of PitchEstimator.__call__ from Python, one thread.

    PYTHONPATH=build/pitch:python python3 bench/bench_pitch.py
"""
import tempfile
import time

import numpy as np

from corvina_tools import ModelSet, write_test_model
from corvina_tools.speech import speech_frames

WARM_UP, FRAMES = 200, 3000


def main():
    with tempfile.TemporaryDirectory() as directory:
        model = ModelSet.load(write_test_model(directory, seed=1)).pitch
    context = model.new_context(1)
    rows = speech_frames(WARM_UP + FRAMES, seed=1)
    times = []
    for i, row in enumerate(rows):
        start = time.perf_counter_ns()
        model(row, context)
        if i >= WARM_UP:
            times.append((time.perf_counter_ns() - start) / 1000.0)
    median, p99 = np.percentile(times, [50, 99])
    print(f"{FRAMES} frames after {WARM_UP} warm-up frames")
    print(f"PitchEstimator.__call__  median {median:8.2f} us   p99 {p99:8.2f} us")
    print(f"real-time factor (10 ms / median): {10000.0 / median:.0f}")


if __name__ == "__main__":
    main()
