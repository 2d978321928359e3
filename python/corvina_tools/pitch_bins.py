"""Pitch bins and hertz: the one mapping used by training targets, the pitch
shift and the docs.

The pitch estimator reports a bin from 1 to 383 (bin 0 is "no pitch" and is
reported apart, as a probability). Bins are spaced 96 to the octave (8 to
the semitone) from 50 Hz at bin 1, so bin 383 is about 791 Hz: the range of
speaking and singing voices.
"""
import numpy as np

BINS = 384
LOWEST_BIN, HIGHEST_BIN = 1, BINS - 1
BINS_PER_OCTAVE = 96
BINS_PER_SEMITONE = BINS_PER_OCTAVE // 12
LOWEST_HZ = 50.0
HIGHEST_HZ = LOWEST_HZ * 2.0 ** ((HIGHEST_BIN - LOWEST_BIN) / BINS_PER_OCTAVE)
# The largest shift that can still move some pitch anywhere on the scale.
MAX_SHIFT_SEMITONES = (HIGHEST_BIN - LOWEST_BIN) / BINS_PER_SEMITONE


def bin_to_hz(bins):
    """Hertz at the centre of pitch bin(s) 1…383 (fractional bins allowed)."""
    return LOWEST_HZ * 2.0 ** ((np.asarray(bins, dtype=np.float64) - LOWEST_BIN) / BINS_PER_OCTAVE)


def hz_to_bin(hz):
    """Fractional pitch bin of a frequency in hertz; not clipped, so callers
    see how far outside the scale a pitch lies. Zero or negative hertz gives
    -inf (no pitch)."""
    hz = np.asarray(hz, dtype=np.float64)
    with np.errstate(divide="ignore", invalid="ignore"):
        return np.where(hz > 0, LOWEST_BIN + BINS_PER_OCTAVE * np.log2(hz / LOWEST_HZ), -np.inf)


def nearest_bin(hz):
    """The pitch bin (1…383) nearest to each frequency; 0 where there is no
    pitch (zero hertz)."""
    b = hz_to_bin(hz)
    voiced = np.isfinite(b)
    return np.where(voiced, np.clip(np.rint(np.where(voiced, b, 0)), LOWEST_BIN, HIGHEST_BIN), 0).astype(np.int64)
