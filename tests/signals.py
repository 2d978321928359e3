"""Speech-like test signals at 16 kHz, deterministic for a given seed; one
stream through a model set's three models, and a stand-in for them."""
import os

import numpy as np

IN_SAMPLE_RATE = 16000
IN_HOP_LENGTH = 160
# Seed of the randomised tests, printed when one fails; the same variable
# sets the native tests' seed.
SEED = int(os.environ.get("CORVINA_TEST_SEED", "20261121"))


def speech_like(n_frames, seed=0, silence=(0.35, 0.45)):
    """Voiced harmonics with a gliding pitch, a noise burst and exact silence.

    The pitch glides between about 90 and 330 Hz with vibrato, the level
    follows a slow syllable-like envelope, a short noise burst stands in for
    a fricative, and the fraction of the signal given by `silence` is exactly
    zero. Returns float32 samples, n_frames * 160 of them.
    """
    rng = np.random.default_rng(seed)
    n = n_frames * IN_HOP_LENGTH
    t = np.arange(n) / IN_SAMPLE_RATE
    span = max(t[-1], 1e-3)
    f0 = 90.0 * (330.0 / 90.0) ** (0.5 - 0.5 * np.cos(2 * np.pi * t / span))
    f0 *= 1.0 + 0.02 * np.sin(2 * np.pi * 5.5 * t)
    phase = 2 * np.pi * np.cumsum(f0) / IN_SAMPLE_RATE
    voiced = np.zeros(n)
    for h in range(1, 16):
        amp = 1.0 / h ** 1.2
        # Harmonics above 7 kHz are dropped to keep the signal band-limited.
        voiced += np.where(h * f0 < 7000.0, amp * np.sin(h * phase + rng.uniform(0, 2 * np.pi)), 0.0)
    envelope = 0.55 + 0.45 * np.sin(2 * np.pi * 3.0 * t + rng.uniform(0, 2 * np.pi))
    x = 0.25 * voiced * envelope
    burst = (t > 0.6 * span) & (t < 0.68 * span)
    x[burst] = 0.15 * rng.standard_normal(burst.sum())
    x += 0.003 * rng.standard_normal(n)
    lo, hi = int(silence[0] * n), int(silence[1] * n)
    x[lo:hi] = 0.0
    return x.astype(np.float32)


def frames(signal):
    """Split a signal into rows of 160 samples (the tail is dropped)."""
    n = len(signal) // IN_HOP_LENGTH
    return signal[: n * IN_HOP_LENGTH].reshape(n, IN_HOP_LENGTH)


class Chain:
    """One stream through the three models of a ModelSet with contexts of
    its own: 160 samples in, 240 out. The last frame's phone features,
    pitch bin and pitch features are kept in `last`."""

    def __init__(self, models, speaker=0):
        self.m, self.speaker = models, models.speakers[speaker:speaker + 1]
        self.contexts = [m.new_context(1) for m in (models.phone, models.pitch, models.waveform)]
        self.last = None

    def __call__(self, x):
        self.last = (self.m.phone(x, self.contexts[0]), *self.m.pitch(x, self.contexts[1]))
        return self.m.waveform(*self.last, self.speaker, self.contexts[2])


class StretchChain:
    """Stands in for the models inside a Converter: records each frame and
    answers with it stretched to 240 samples (a known, frame-local mapping)."""

    def __init__(self):
        self.frames = []

    def reset(self):
        self.frames = []

    def __call__(self, frame, shift_bins, speaker_row):
        self.frames.append(frame.copy())
        return np.interp(np.arange(240) * 160 / 240, np.arange(160), frame).astype(np.float32)
