"""Per-frame cost of PitchEstimator.__call__ from Python, one thread.

    PYTHONPATH=build/pitch:tests python3 bench/bench_pitch.py
"""
import tempfile
import time
from pathlib import Path

import numpy as np

import corvina
from reference import pitch
from signals import frames, speech_like

WARM_UP, FRAMES = 200, 3000


def main():
    with tempfile.TemporaryDirectory() as directory:
        path = Path(directory) / "pitch.bin"
        pitch.write_parameters(pitch.random_parameters(1), path)
        model = corvina.PitchEstimator()
        model.read_parameters(str(path))
    context = model.new_context(1)
    rows = frames(speech_like(WARM_UP + FRAMES, seed=1))
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
