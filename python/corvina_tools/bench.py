"""Per-frame timings of the three models and the whole chain, measured with
perf_counter around the Python calls, one stream on one core."""
import time

import numpy as np

from .converter import IN_HOP, IN_RATE
from .speech import speech_like

FRAME_SECONDS = IN_HOP / IN_RATE


def time_frames(models, n_frames=1000, warmup=50, speaker=0):
    """Microseconds per frame for each model and for the chain (the three
    calls of one frame), as arrays of n_frames values."""
    signal = speech_like(seconds=(n_frames + warmup) * FRAME_SECONDS)
    frames = signal[: (n_frames + warmup) * IN_HOP].reshape(-1, IN_HOP)
    pc, tc, wc = models.phone.new_context(1), models.pitch.new_context(1), models.waveform.new_context(1)
    row = models.speakers[speaker:speaker + 1]
    clock = time.perf_counter
    times = np.zeros((len(frames), 3))
    for i, frame in enumerate(frames):
        t0 = clock()
        features = models.phone(frame, pc)
        t1 = clock()
        bins, pitch_features = models.pitch(frame, tc)
        t2 = clock()
        models.waveform(features, bins, pitch_features, row, wc)
        t3 = clock()
        times[i] = (t1 - t0, t2 - t1, t3 - t2)
    times = times[warmup:] * 1e6
    return {"phone extractor": times[:, 0], "pitch estimator": times[:, 1],
            "waveform generator": times[:, 2], "chain": times.sum(axis=1)}


def summary(timings):
    """Lines of the bench report."""
    lines = [f"{'µs per frame':20s} {'median':>9s} {'p99':>9s}"]
    for name, t in timings.items():
        lines.append(f"{name:20s} {np.median(t):9.1f} {np.percentile(t, 99):9.1f}")
    chain = timings["chain"]
    mean_seconds = float(np.mean(chain)) * 1e-6
    lines.append(f"real-time factor {mean_seconds / FRAME_SECONDS:.3f} (mean processing time / 10 ms frame)")
    lines.append(f"real-time streams per core: {int(FRAME_SECONDS / mean_seconds)} "
                 f"(at p99: {int(FRAME_SECONDS / (np.percentile(chain, 99) * 1e-6))})")
    return lines
