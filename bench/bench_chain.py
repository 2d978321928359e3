"""The chain through the Python calls against the native chain, one stream on
one thread: the phone extractor, pitch estimator and waveform generator frame
after frame as a host runs them, then the native benchmark (bench_chain, the
active kernel set alone, no batch) on the same parameter files; the two take
turns for a few rounds, so a change in machine load hits both alike. Prints
each round's medians and their ratio (Python over native). Weights are random,
from write_test_model.

    python3 bench/bench_chain.py [--build DIR] [--frames N] [--rounds R]

The build directory (default build/perf) holds the Python module and
bench/bench_chain, both built with -DCORVINA_BUILD_PYTHON=ON.
"""
import argparse
import json
import os
import subprocess
import sys
import tempfile
import time

import numpy as np

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
WARM_UP = 200


def python_chain_median(corvina, paths, rows, speaker):
    """Median microseconds of a frame through the three Python calls."""
    models = (corvina.PhoneExtractor(), corvina.PitchEstimator(), corvina.WaveformGenerator())
    for model, name in zip(models, ("phone", "pitch", "generator")):
        model.read_parameters(paths[name])
    extractor, estimator, generator = models
    contexts = [m.new_context(1) for m in models]
    micros = []
    for x in rows:
        start = time.perf_counter_ns()
        features = extractor(x, contexts[0])
        bins, pitch_features = estimator(x, contexts[1])
        generator(features, bins, pitch_features, speaker, contexts[2])
        micros.append((time.perf_counter_ns() - start) / 1000.0)
    return float(np.median(micros[WARM_UP:]))


def native_chain_median(native, kernel_set, frames, paths, folder):
    """The one-stream chain median of bench_chain, the given kernel set alone."""
    report = os.path.join(folder, "chain.json")
    subprocess.run([native, "--set", kernel_set, "--frames", str(frames), "--batch", "0", "--json", report,
                    paths["phone"], paths["pitch"], paths["generator"]], check=True, stdout=subprocess.DEVNULL)
    with open(report) as f:
        return json.load(f)["kernel_sets"][kernel_set]["chain"]["one_stream"]["median_us"]


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--build", default=os.path.join(ROOT, "build", "perf"))
    parser.add_argument("--frames", type=int, default=1000, help="timed frames per round and side")
    parser.add_argument("--rounds", type=int, default=3)
    args = parser.parse_args()
    build = os.path.abspath(args.build)
    native = os.path.join(build, "bench", "bench_chain")
    if not os.path.exists(native):
        sys.exit(f"no native benchmark at {native}: build the bench_chain target there")
    sys.path.insert(0, build)
    sys.path.insert(0, os.path.join(ROOT, "python"))
    import corvina
    from corvina_tools import write_test_model
    from corvina_tools.speech import speech_frames

    kernel_set = corvina._KERNEL_SET
    rows = speech_frames(WARM_UP + args.frames, seed=1)
    speaker = (0.3 * np.random.default_rng(1).standard_normal((1, 256))).astype(np.float32)
    print(f"corvina chain, one stream: Python calls against native bench_chain, kernel set {kernel_set}, "
          f"{args.frames} frames per side and round after {WARM_UP} warm-up frames")
    with tempfile.TemporaryDirectory() as folder:
        write_test_model(folder, seed=1)
        paths = {name: os.path.join(folder, f"{file}.bin") for name, file in (
            ("phone", "phone_extractor"), ("pitch", "pitch_estimator"), ("generator", "waveform_generator"))}
        ratios = []
        print("| round | Python median us | native median us | Python / native |\n|---:|---:|---:|---:|")
        for r in range(args.rounds):
            through_python = python_chain_median(corvina, paths, rows, speaker)
            direct = native_chain_median(native, kernel_set, args.frames, paths, folder)
            ratios.append(through_python / direct)
            print(f"| {r + 1} | {through_python:.1f} | {direct:.1f} | {ratios[-1]:.3f} |", flush=True)
    print(f"median ratio {np.median(ratios):.3f}; load average {os.getloadavg()[0]:.2f}")


if __name__ == "__main__":
    main()
