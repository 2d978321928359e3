"""The streaming converter: audio blocks of any size and rate in, converted
audio out. Frames of 160 samples at 16 kHz go through the three models; the
output is 24 kHz, or resampled to the rate asked for."""
import functools
import math
import numbers
from typing import NamedTuple

import numpy as np
import soxr

import corvina

from .pitch_bins import BINS, BINS_PER_OCTAVE, BINS_PER_SEMITONE, HIGHEST_BIN, LOWEST_BIN, MAX_SHIFT_SEMITONES

# The mapping of bins to hertz lives in pitch_bins; it must describe the engine's bins.
if (BINS, BINS_PER_OCTAVE) != (corvina.PITCH_BINS, corvina.PITCH_BINS_PER_OCTAVE):
    raise ImportError(f"corvina_tools.pitch_bins ({BINS} bins, {BINS_PER_OCTAVE} an octave) does not match the "
                      f"engine ({corvina.PITCH_BINS}, {corvina.PITCH_BINS_PER_OCTAVE})")

IN_RATE, OUT_RATE = corvina.IN_SAMPLE_RATE, corvina.OUT_SAMPLE_RATE
IN_HOP, OUT_HOP = corvina.IN_HOP_LENGTH, corvina.OUT_HOP_LENGTH
# The largest shift the bins can express: from the lowest bin to the highest.
MAX_PITCH_SHIFT = MAX_SHIFT_SEMITONES          # 47.75: the span of the pitch bins
SPEAKER_CHOICES = "a row index (int), a {row: weight} dict or a sequence of one weight per row"


def checked_pitch_shift(semitones):
    """semitones as a float, or ValueError if it is not a finite shift the
    pitch bins can express."""
    try:
        value = float(semitones)
    except (TypeError, ValueError):
        value = math.nan
    if not (math.isfinite(value) and abs(value) <= MAX_PITCH_SHIFT):
        raise ValueError(f"pitch shift must be a number of semitones from {-MAX_PITCH_SHIFT} to "
                         f"{MAX_PITCH_SHIFT} (the span of the pitch bins), not {semitones!r}")
    return value


def _is_row_index(value):
    return isinstance(value, (numbers.Integral, np.integer)) and not isinstance(value, (bool, np.bool_))


class Latency(NamedTuple):
    samples: float      # at the output rate
    seconds: float


class EngineChain:
    """One stream through the three models: its own three contexts."""

    def __init__(self, models):
        self.models = models
        self.reset()

    def reset(self):
        m = self.models
        self._contexts = (m.phone.new_context(1), m.pitch.new_context(1), m.waveform.new_context(1))

    def __call__(self, frame, shift_bins, speaker_row):
        m, (pc, tc, wc) = self.models, self._contexts
        features = m.phone(frame, pc)
        bins, pitch_features = m.pitch(frame, tc)
        return m.waveform(features, shift_bins_by(bins, shift_bins), pitch_features, speaker_row, wc)

    @property
    def contexts(self):
        """The stream's phone, pitch and waveform contexts, for batch calls."""
        return self._contexts


def shift_bins_by(bins, shift):
    """Estimated pitch bins moved by `shift` bins (one per stream, or one for
    all), kept inside the estimator's range; unshifted bins are left as they are."""
    shift = np.asarray(shift)
    if not shift.any():
        return bins
    return np.where(shift != 0, np.clip(bins + shift, LOWEST_BIN, HIGHEST_BIN), bins).astype(np.int32)


class _Resampler:
    """A streaming soxr resampler, or a pass-through at equal rates."""

    def __init__(self, in_rate, out_rate, quality):
        self.in_rate, self.out_rate, self.quality = in_rate, out_rate, quality
        self.reset()

    def reset(self):
        same = self.in_rate == self.out_rate
        self._stream = None if same else soxr.ResampleStream(self.in_rate, self.out_rate, 1, quality=self.quality)

    def __call__(self, x, last=False):
        return x if self._stream is None else self._stream.resample_chunk(x, last=last)

    @property
    def delay_seconds(self):
        return 0.0 if self._stream is None else _worst_hold_back(self.in_rate, self.out_rate, self.quality)


@functools.lru_cache(maxsize=None)
def _worst_hold_back(in_rate, out_rate, quality):
    """The most output a soxr stream holds back, in seconds, probed with 10 ms
    blocks of silence: the filter delay plus its internal block buffering."""
    stream = soxr.ResampleStream(in_rate, out_rate, 1, quality=quality)
    block = np.zeros(max(1, round(in_rate / 100)), np.float32)
    pushed = emitted = worst = 0
    for _ in range(200):
        pushed += len(block)
        emitted += len(stream.resample_chunk(block))
        worst = max(worst, pushed * out_rate / in_rate - emitted)
    return worst / out_rate


class Converter:
    """Converts one audio stream, block by block.

    models: a ModelSet; one may serve many converters.
    input_rate, output_rate: sample rates of what goes in and comes out.
    speaker: a speaker row index, or weights over rows (see `speaker`).
    pitch_shift: semitones, applied to the estimated pitch; at most
        MAX_PITCH_SHIFT (47.75) either way, the span of the pitch bins.
    quality: the soxr resampler quality; higher holds back more audio.
    chain: stands in for the three models (for tests); default the engine.
    Settings take effect at the next frame.
    """

    def __init__(self, models, input_rate=IN_RATE, output_rate=OUT_RATE, speaker=0, pitch_shift=0.0,
                 quality="HQ", chain=None):
        for name, rate in (("input_rate", input_rate), ("output_rate", output_rate)):
            if not (isinstance(rate, numbers.Real) and math.isfinite(rate) and rate > 0):
                raise ValueError(f"{name} must be a positive number of Hz, not {rate!r}")
        self.models = models
        self.input_rate, self.output_rate = input_rate, output_rate
        self._chain = chain if chain is not None else EngineChain(models)
        self._to_model = _Resampler(input_rate, IN_RATE, quality)
        self._from_model = _Resampler(OUT_RATE, output_rate, quality)
        self.speaker = speaker
        self.pitch_shift = pitch_shift
        self.reset()

    # ---------------------------------------------------------------- settings

    @property
    def speaker(self):
        return self._speaker

    @speaker.setter
    def speaker(self, choice):
        """An int picks one row; a dict {row: weight} or a sequence of one
        weight per row mixes rows (weights are normalised to sum to one)."""
        rows = self.models.speakers
        if _is_row_index(choice):
            weights = {int(choice): 1.0}
        elif isinstance(choice, dict) and all(_is_row_index(k) for k in choice):
            weights = {int(k): float(v) for k, v in choice.items()}
        elif isinstance(choice, (list, tuple, np.ndarray)):
            values = [float(v) for v in np.ravel(choice)]
            if len(values) != len(rows):
                raise ValueError(f"expected {len(rows)} speaker weights, one per row, got {len(values)}")
            weights = dict(enumerate(values))
        else:
            raise TypeError(f"speaker must be {SPEAKER_CHOICES}, not {choice!r}")
        bad = [k for k in weights if not 0 <= k < len(rows)]
        if bad:
            raise ValueError(f"speaker {bad[0]} out of range: the model has {len(rows)} speakers (0..{len(rows) - 1})")
        total = sum(weights.values())
        if any(w < 0 or not math.isfinite(w) for w in weights.values()) or total <= 0:
            raise ValueError("speaker weights must be finite, non-negative and not all zero")
        row = sum(rows[k].astype(np.float64) * (w / total) for k, w in weights.items())
        # One assignment, so a frame on another thread sees the old or the new row.
        self._speaker_row = np.asarray(row, np.float32).reshape(1, -1)
        self._speaker = choice

    @property
    def pitch_shift(self):
        return self._pitch_shift

    @pitch_shift.setter
    def pitch_shift(self, semitones):
        """Semitones, at most MAX_PITCH_SHIFT either way."""
        semitones = checked_pitch_shift(semitones)
        self._shift_bins = int(round(semitones * BINS_PER_SEMITONE))
        self._pitch_shift = semitones

    # ---------------------------------------------------------------- streaming

    @property
    def latency(self):
        """Worst-case delay from a sample going in to its converted sample
        coming out: a whole frame's buffering plus both resamplers' hold-back."""
        seconds = IN_HOP / IN_RATE + self._to_model.delay_seconds + self._from_model.delay_seconds
        return Latency(seconds * self.output_rate, seconds)

    def reset(self):
        """Start a new stream: model histories, resamplers and counters."""
        self._chain.reset()
        self._to_model.reset()
        self._from_model.reset()
        self._pending = np.zeros(0, np.float32)
        self.frames = 0
        self.nonfinite_samples = 0
        self._flushed = False

    def process(self, block):
        """Feed a block: (n,) mono or (n, channels), any numeric type.
        Returns the converted samples ready so far (float32, mono)."""
        return self.emit(self._run(self.cut_frames(block)))

    def flush(self):
        """Drain everything buffered: the last partial frame is completed with
        silence and its output cut to the input's length. Call reset() before
        feeding a new stream."""
        if self._flushed:
            return np.zeros(0, np.float32)
        frames, cut = self.cut_last_frames()
        out = self._run(frames)
        return self.emit(out[:len(out) - cut], last=True)

    # A host that runs the frames itself (a batching scheduler) calls these
    # three in place of process() and flush(): cut, run each frame with the
    # stream's `contexts`, `shift_bins` and `speaker_row`, emit.

    def cut_frames(self, block):
        """The whole 10 ms model frames (k, 160) that `block` completes."""
        if self._flushed:
            raise RuntimeError("the stream was flushed; reset() starts a new one")
        return self._split(self._to_model(self._mono(block)))

    def cut_last_frames(self):
        """The frames left at the end of the stream, the last one completed
        with silence, and how many samples to cut from the end of their
        output (the part the silence made)."""
        self._flushed = True
        frames = self._split(self._to_model(np.zeros(0, np.float32), last=True), finish=True)
        cut = OUT_HOP - self._tail_samples * OUT_HOP // IN_HOP if self._tail_samples else 0
        return frames, cut

    def emit(self, model_output, last=False):
        """Model output (24 kHz) to the output rate."""
        return self._from_model(model_output, last=last)

    @property
    def contexts(self):
        return self._chain.contexts

    @property
    def shift_bins(self):
        return self._shift_bins

    @property
    def speaker_row(self):
        return self._speaker_row

    def _mono(self, block):
        x = np.asarray(block)
        if x.ndim not in (1, 2):
            raise ValueError(f"expected a block of shape (n,) or (n, channels), got {x.shape}")
        if np.issubdtype(x.dtype, np.signedinteger):
            x = x / float(np.iinfo(x.dtype).max + 1)     # integer PCM to [-1, 1)
        if x.ndim == 2:
            x = x.mean(axis=1, dtype=np.float64) if x.shape[1] > 1 else x[:, 0]
        x = np.array(x, dtype=np.float32)
        bad = ~np.isfinite(x)
        if bad.any():
            self.nonfinite_samples += int(bad.sum())
            x[bad] = 0.0
        return x

    def _split(self, x, finish=False):
        pending = np.concatenate([self._pending, x]) if len(self._pending) else x
        self._tail_samples = len(pending) % IN_HOP if finish else 0
        if self._tail_samples:
            pending = np.concatenate([pending, np.zeros(IN_HOP - self._tail_samples, np.float32)])
        n = len(pending) // IN_HOP
        self._pending = pending[n * IN_HOP:].copy()
        return pending[:n * IN_HOP].reshape(n, IN_HOP)

    def _run(self, frames):
        outputs = [self._chain(frame, self._shift_bins, self._speaker_row) for frame in frames]
        self.frames += len(frames)
        return np.concatenate(outputs).astype(np.float32, copy=False) if outputs else np.zeros(0, np.float32)
