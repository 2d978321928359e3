"""Float64 reference of the pitch estimator, computed over a whole stream.

The front end uses a direct DFT over each 560-sample history and direct
lag sums of squared differences (the engine uses FFTs and a running
energy). The network runs its causal convolutions over the whole,
zero-padded sequence of frame vectors instead of rings. The decoder
follows the engine's tie rules in float64.
"""
from collections import namedtuple

import numpy as np

from .layers import causal_conv, dense, gelu, normalise, residual_block

HOP = 160
HISTORY = 560
NEWEST = 304                      # samples compared in the lag sums
MAX_LAG = 256
SPECTRAL_BINS = 64
BLOCKS = 6
PITCH_BINS = 384
BINS_PER_OCTAVE = 96
WINDOW = 48
WINDOWS = PITCH_BINS - WINDOW + 1  # 337 window sums, j = 0..336
LOG_EPS = 1e-5

FAULTS = ("conv_taps_reversed", "depthwise_taps_reversed", "lag_off_by_one", "phase_sine_negated")


# ---------------------------------------------------------------- front end

def histories(signal):
    """(n, 560) history seen by each frame, zero before the stream start."""
    x = np.asarray(signal, dtype=np.float64)
    n = len(x) // HOP
    padded = np.concatenate([np.zeros(HISTORY - HOP), x[: n * HOP]])
    return padded[np.arange(n)[:, None] * HOP + np.arange(HISTORY)[None, :]]


def front_end(signal, fault=None):
    """Spectral features (n, 192), lag features (n, 256), loudness (n,)."""
    hist = histories(signal)
    n = len(hist)
    # Reduce m*k modulo 560 so the twiddles are exact to float64 rounding.
    mk = np.outer(np.arange(HISTORY), np.arange(SPECTRAL_BINS)) % HISTORY
    spectrum = hist @ np.exp(-2j * np.pi * mk / HISTORY)
    previous = np.vstack([np.zeros((1, SPECTRAL_BINS), complex), spectrum[:-1]])
    advance = spectrum * np.conj(previous)
    if fault == "phase_sine_negated":
        advance = np.conj(advance)
    g = 1.0 / (np.hypot(advance.real, advance.imag) + LOG_EPS)
    spectral = np.hstack([np.log10(np.abs(spectrum) + LOG_EPS), advance.real * g, advance.imag * g])

    newest = hist[:, HISTORY - NEWEST:]
    lag = np.empty((n, MAX_LAG))
    shift = -1 if fault == "lag_off_by_one" else 0
    for ell in range(1, MAX_LAG + 1):
        l = ell + shift
        diff = newest - hist[:, HISTORY - NEWEST - l: HISTORY - l]
        lag[:, ell - 1] = np.sqrt(np.sum(diff * diff, axis=1) * (2.0 / NEWEST))
    loudness = 0.5 * np.log10(np.sum(newest * newest, axis=1) + LOG_EPS)
    return spectral, lag, loudness


# ------------------------------------------------------------------ network

def network(params, spectral, lag, fault=None):
    """Scores (n, 384) for a whole stream of front-end features."""
    p = {name: np.asarray(value, dtype=np.float64) for name, value in params.items()}
    h = dense(gelu(dense(spectral, p["spectral_in.weight"], p["spectral_in.bias"])),
              p["spectral_out.weight"], p["spectral_out.bias"])
    h = h + dense(gelu(dense(lag, p["lag_in.weight"], p["lag_in.bias"])), p["lag_out.weight"], p["lag_out.bias"])
    w = p["conv.weight"][:, :, ::-1] if fault == "conv_taps_reversed" else p["conv.weight"]
    x = normalise(causal_conv(h, w, p["conv.bias"]), p["conv_norm.weight"], p["conv_norm.bias"])
    for n in range(BLOCKS):
        x = residual_block(p, f"blocks.{n}.", x, fault == "depthwise_taps_reversed")
    return dense(normalise(x, p["out_norm.weight"], p["out_norm.bias"]), p["head.weight"], p["head.bias"])


# ------------------------------------------------------------------ decoder

Decoded = namedtuple("Decoded", "pitch p0 lower_ratio upper_ratio window window_sums probabilities")


def decode(scores):
    """Quantised pitch and [p0, lower ratio, upper ratio] for one frame of 384 scores.

    `probabilities` has bin 0 overwritten with -100, as the window sums see it.
    """
    s = np.asarray(scores, dtype=np.float64)
    m = np.max(s)
    log_total = m + np.log(np.sum(np.exp(s - m)))
    p = np.exp(s - log_total)
    p0 = p[0]
    p[0] = -100.0   # bin 0 is reported apart and never chosen
    first = np.sum(p[1:WINDOW]) + p[0]
    # Running sum, strictly left to right: W[j + 1] = W[j] + (p[j + 48] - p[j]).
    sums = np.add.accumulate(np.concatenate([[first], p[WINDOW:] - p[:WINDOWS - 1]]))
    j = int(np.argmax(sums))                      # first maximum: lowest index wins ties
    best = sums[j]
    with np.errstate(invalid="ignore"):        # all mass on bin 0 leaves Wmax = 0: 0 / 0
        lower = sums[j - BINS_PER_OCTAVE] / best if j >= BINS_PER_OCTAVE + 1 else 0.0
        upper = sums[j + BINS_PER_OCTAVE] / best if j <= WINDOWS - 1 - BINS_PER_OCTAVE else 0.0
    pitch = j + int(np.argmax(p[j: j + WINDOW]))   # earliest bin wins ties
    return Decoded(pitch, p0, lower, upper, j, sums, p)


# ------------------------------------------------------------------- stream

PitchOutputs = namedtuple("PitchOutputs", "spectral lag loudness scores pitch features window window_sums")


def estimate_pitch(params, signal, fault=None):
    """Whole-stream reference: per-frame features, scores, pitch and pitch features."""
    spectral, lag, loudness = front_end(signal, fault)
    scores = network(params, spectral, lag, fault)
    decoded = [decode(row) for row in scores]
    pitch = np.array([d.pitch for d in decoded], dtype=np.int64)
    features = np.column_stack([loudness] + [[getattr(d, f) for d in decoded]
                                             for f in ("p0", "lower_ratio", "upper_ratio")])
    return PitchOutputs(spectral, lag, loudness, scores, pitch, features,
                        np.array([d.window for d in decoded]),
                        np.array([d.window_sums for d in decoded]))
