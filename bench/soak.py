"""Soak: one stream through the whole chain (phone extractor, pitch
estimator, waveform generator) for the equivalent of an hour of audio,
360000 frames of 10 ms, as fast as it runs. Watches what a long-running host
would: resident memory, non-finite and denormal values in every model's
outputs and in the stream's three context blocks, and frame times at the
start and the end. Not a test: it takes several minutes.

    PYTHONPATH=build/<dir>:python python3 bench/soak.py [--frames 360000] [--json soak.json]

The input cycles through speech-like passages of changing pitch and level,
exact digital silence and a very quiet noise floor, so that the recurrent
states decay towards zero as well as being driven. The harness allocates
nothing per chunk (inputs made up front, outputs copied into one buffer):
large arrays made and freed every few seconds leave the C allocator's heap
growing by a few bytes a frame, which would hide what the engine does.
"""
import argparse
import ctypes
import json
import resource
import sys
import tempfile
import time

import numpy as np

import corvina
from corvina_tools import ModelSet, write_test_model
from corvina_tools.speech import speech_like

CHUNK = 1000                     # frames checked at a time
VARIANTS = 12                    # distinct 10 s inputs, cycled
TINY = np.finfo(np.float32).tiny  # the smallest normal float
CONTEXT_BYTES = {corvina.PhoneContext: 230976, corvina.PitchContext: 184768, corvina.WaveformContext: 419648}


def rss_mib():
    with open("/proc/self/statm") as f:
        return int(f.read().split()[1]) * resource.getpagesize() / 2**20


def chunk_input(k):
    """10 s of input, as (1000, 160) frames: speech-like passages of varying
    level, but exact silence for k = 4, 9 and a -100 dBFS noise floor for k = 6."""
    if k % 5 == 4:
        x = np.zeros(CHUNK * 160, np.float32)
    elif k % 7 == 6:
        x = (1e-5 * np.random.default_rng(k).standard_normal(CHUNK * 160)).astype(np.float32)
    else:
        x = ((0.2 + 0.8 * ((k * 0.37) % 1.0)) * speech_like(CHUNK / 100, 16000, seed=k)).astype(np.float32)
    return x.reshape(CHUNK, 160)


def counts(values):
    """(denormal, non-finite) counts of float32 values."""
    v = np.asarray(values, np.float32).ravel()
    return int(np.count_nonzero((np.abs(v) < TINY) & (v != 0))), int(np.count_nonzero(~np.isfinite(v)))


def context_words(context):
    """The context's engine block as float32 words. The block's address sits
    after the object header and the 32-bit length (module/objects.h); read
    only, between frames. Integer ring positions inside read as denormals."""
    address = ctypes.c_void_p.from_address(id(context) + object.__basicsize__ + 8).value
    return np.frombuffer(ctypes.string_at(address, CONTEXT_BYTES[type(context)]), np.float32)


def percentiles(times_ns):
    us = np.asarray(times_ns) / 1e3
    return {"p50_us": float(np.percentile(us, 50)), "p99_us": float(np.percentile(us, 99)), "max_us": float(us.max())}


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--frames", type=int, default=360000)
    parser.add_argument("--window", type=int, default=10000, help="frames compared at the start and the end")
    parser.add_argument("--json", help="write the figures here too")
    args = parser.parse_args()

    folder = tempfile.mkdtemp(prefix="corvina-soak-")
    models = ModelSet.load(write_test_model(folder, seed=1, speakers=1))
    contexts = models.phone.new_context(1), models.pitch.new_context(1), models.waveform.new_context(1)
    speaker = models.speakers[:1]

    inputs = [chunk_input(k) for k in range(VARIANTS)]
    widths = (corvina.PHONE_CHANNELS, 4, corvina.OUT_HOP_LENGTH)
    chunk_out = np.zeros((CHUNK, sum(widths)), np.float32)
    columns = np.split(chunk_out, np.cumsum(widths)[:-1], axis=1)
    times = np.zeros(args.frames, np.int64)
    samples = []  # (frame, rss MiB, output denormals, output non-finite, context denormal words, context non-finite)
    out_denormal = out_nonfinite = 0
    n_chunks = -(-args.frames // CHUNK)
    start = time.perf_counter()
    for k in range(n_chunks):
        rows = inputs[k % VARIANTS][: args.frames - k * CHUNK]
        for i, x in enumerate(rows):
            t0 = time.perf_counter_ns()
            features = models.phone(x, contexts[0])
            bins, pitch_features = models.pitch(x, contexts[1])
            wave = models.waveform(features, bins, pitch_features, speaker, contexts[2])
            times[k * CHUNK + i] = time.perf_counter_ns() - t0
            columns[0][i], columns[1][i], columns[2][i] = features[0], pitch_features[0], wave
        d, n = counts(chunk_out[: len(rows)])
        out_denormal, out_nonfinite = out_denormal + d, out_nonfinite + n
        if k % 10 == 0 or k == n_chunks - 1:
            words = [counts(context_words(c)) for c in contexts]
            samples.append(((k + 1) * CHUNK, rss_mib(), d, n, [w[0] for w in words], [w[1] for w in words]))
            print(f"frame {min((k + 1) * CHUNK, args.frames):7d}  rss {samples[-1][1]:7.1f} MiB  "
                  f"chunk median {np.median(times[k * CHUNK:(k + 1) * CHUNK]) / 1e3:7.1f} us  "
                  f"output denormals {d}  non-finite {n}  context denormal words {samples[-1][4]}",
                  file=sys.stderr, flush=True)
    wall = time.perf_counter() - start

    w = min(args.window, args.frames // 2)
    report = {
        "frames": args.frames, "audio_seconds": args.frames / 100, "wall_seconds": wall,
        "real_time_factor": args.frames / 100 / wall,
        "rss_mib": {"after_first_chunk": samples[0][1], "end": samples[-1][1],
                    "max": max(s[1] for s in samples)},
        "frame_time_first": percentiles(times[:w]), "frame_time_last": percentiles(times[-w:]),
        "output_denormals": out_denormal, "output_non_finite": out_nonfinite,
        "context_denormal_words": {"start": samples[0][4], "end": samples[-1][4],
                                   "max": [max(s[4][i] for s in samples) for i in range(3)]},
        "context_non_finite": {"max": [max(s[5][i] for s in samples) for i in range(3)]},
    }
    print(json.dumps(report, indent=2))
    if args.json:
        with open(args.json, "w") as f:
            json.dump(report, f, indent=2)


if __name__ == "__main__":
    main()
