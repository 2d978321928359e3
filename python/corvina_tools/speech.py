"""A speech-like test signal made in code: a glottal pulse train with an
intonation contour, shaped by formant resonators that move from vowel to
vowel, with short noise bursts between syllables."""
import numpy as np

# First three formants (Hz) of a few vowels.
VOWELS = {"a": (730, 1090, 2440), "i": (270, 2290, 3010), "u": (300, 870, 2240),
          "e": (530, 1840, 2480), "o": (570, 840, 2410)}
BANDWIDTHS = (80.0, 100.0, 140.0)


def glottal_pulses(f0, rate):
    """One smooth, asymmetric pulse per pitch period (open phase rising,
    quick closure), as a sum over the running phase."""
    phase = np.cumsum(f0 / rate) % 1.0
    open_phase = 0.6
    rising = np.where(phase < open_phase, 0.5 - 0.5 * np.cos(np.pi * phase / open_phase), 0.0)
    closing = np.where(phase >= open_phase, np.cos(0.5 * np.pi * (phase - open_phase) / (1 - open_phase)), 0.0)
    return np.diff(rising + closing, prepend=0.0)      # the radiated derivative


def resonate(x, freq, bandwidth, rate):
    """Two-pole resonator with a time-varying centre frequency, unit gain at
    the centre."""
    r = np.exp(-np.pi * bandwidth / rate)
    a1 = 2 * r * np.cos(2 * np.pi * freq / rate)
    a2 = -r * r
    gain = (1 - r) * np.sqrt(1 - 2 * r * np.cos(4 * np.pi * freq / rate) + r * r)
    y = np.zeros_like(x)
    y1 = y2 = 0.0
    for n in range(len(x)):
        y0 = gain[n] * x[n] + a1[n] * y1 + a2 * y2
        y[n], y2, y1 = y0, y1, y0
    return y


def speech_like(seconds=3.0, rate=16000, seed=0, vowels="aiueoai", pitch=(180.0, 90.0)):
    """A float32 signal, voiced parts at about 0.1 RMS: syllables on an
    intonation gliding from pitch[0] to pitch[1] Hz with vibrato, a
    fricative-like burst and a short pause between them."""
    rng = np.random.default_rng(seed)
    n = round(seconds * rate)
    t = np.arange(n) / rate
    glide = pitch[1] + (pitch[0] - pitch[1]) * (0.5 + 0.5 * np.cos(np.pi * t / seconds))
    f0 = glide * (1 + 0.015 * np.sin(2 * np.pi * 5 * t))
    source = glottal_pulses(f0, rate) + 0.002 * rng.standard_normal(n)
    # Formant tracks glide between the vowels of successive syllables.
    syllable = np.linspace(0, len(vowels) - 1, n)
    targets = np.array([VOWELS[v] for v in vowels], dtype=float)
    voiced = sum(resonate(source, np.interp(syllable, np.arange(len(vowels)), targets[:, k]),
                          BANDWIDTHS[k], rate) / (k + 1) for k in range(3))
    within = syllable % 1.0
    envelope = np.clip(np.sin(np.pi * np.clip((within - 0.05) / 0.8, 0, 1)) * 1.5, 0, 1)
    fricative = (within > 0.88) & (within < 0.96)
    noise = np.diff(rng.standard_normal(n), prepend=0.0) * 0.015 * fricative    # high-frequency hiss
    x = 0.1 * voiced / voiced.std() * envelope + noise
    return (x * min(1.0, 0.9 / np.max(np.abs(x)))).astype(np.float32)


def speech_frames(n_frames, seed=0, **options):
    """speech_like at 16 kHz as n_frames rows of 160 samples, the models' frames."""
    return speech_like(n_frames / 100, 16000, seed, **options).reshape(n_frames, 160)
