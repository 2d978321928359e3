"""Waveform generator speed through the Python call, its inputs from the
phone extractor and pitch estimator: microseconds per 10 ms frame (median and
99th percentile over 2000 frames after 200 warm-up frames) and the real-time
factor 10 ms / median. Weights are random, from write_test_model;
the same files are then handed to the native benchmark (bench_waveform) for
the engine's figures and per-stage shares. The whole chain through Python
against the native chain: bench_chain.py.

    python3 bench/bench_waveform.py [build-dir]      (default build/waveform)
"""
import os
import subprocess
import sys
import tempfile
import time

import numpy as np

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BUILD = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(ROOT, "build", "waveform"))
sys.path.insert(0, BUILD)
sys.path.insert(0, os.path.join(ROOT, "python"))

from corvina_tools import ModelSet, write_test_model  # noqa: E402
from corvina_tools.speech import speech_frames  # noqa: E402

WARM_UP, FRAMES = 200, 2000


def report(what, micros):
    micros = np.asarray(micros[WARM_UP:])
    median, p99 = np.median(micros), np.percentile(micros, 99)
    print(f"{what}: median {median:.1f} us/frame, p99 {p99:.1f} us/frame, "
          f"real-time factor {10000.0 / median:.1f} ({len(micros)} frames)")


def main():
    with tempfile.TemporaryDirectory() as folder:
        models = ModelSet.load(write_test_model(folder, seed=1))
        generator, extractor, estimator = models.waveform, models.phone, models.pitch
        paths = {name: os.path.join(folder, f"{file}.bin") for name, file in (
            ("generator", "waveform_generator"), ("phone", "phone_extractor"), ("pitch", "pitch_estimator"))}

        rows = speech_frames(WARM_UP + FRAMES, seed=1)
        speaker = (0.3 * np.random.default_rng(1).standard_normal((1, 256))).astype(np.float32)
        phone_context, pitch_context = extractor.new_context(1), estimator.new_context(1)
        conditioning = [(extractor(x, phone_context), *estimator(x, pitch_context)) for x in rows]

        context = generator.new_context(1)
        micros = []
        for features, bins, pitch_features in conditioning:
            start = time.perf_counter_ns()
            generator(features, bins, pitch_features, speaker, context)
            micros.append((time.perf_counter_ns() - start) / 1000.0)
        report("WaveformGenerator.__call__", micros)

        native = os.path.join(BUILD, "bench", "bench_waveform")
        if os.path.exists(native):
            print(f"native: {native} generator.bin phone.bin pitch.bin", flush=True)
            subprocess.run([native, paths["generator"], paths["phone"], paths["pitch"]], check=True)


if __name__ == "__main__":
    main()
