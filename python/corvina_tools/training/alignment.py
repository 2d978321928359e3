"""Turning one rendition into frame-aligned training arrays: resampling,
silence trimming, gain, pitch per 10 ms frame, and phone labels per frame
(from the synthesiser's phone end times, or carried over from another
rendition of the same sentence by dynamic time warping)."""
from __future__ import annotations

from typing import Optional, Sequence

import numpy as np
import soxr

from .corpus_sources import PHONE_INDEX, SILENCE_SYMBOLS

RATE16, RATE24 = 16000, 24000
HOP16, HOP24 = 160, 240
FRAME_SECONDS = HOP16 / RATE16
MAX_EDGE_SILENCE = 0.1          # seconds kept before the first and after the last sound
SILENCE_BELOW_PEAK_DB = 40.0    # frames this far below the loudest one count as silence
F0_FLOOR, F0_CEIL = 50.0, 800.0


class AudioError(ValueError):
    """Audio that cannot become a training utterance (silent, too short, ...)."""


def frame_energy_db(audio16: np.ndarray) -> np.ndarray:
    """RMS level of each whole 10 ms frame, in dB."""
    frames = audio16[: len(audio16) // HOP16 * HOP16].reshape(-1, HOP16)
    return 10 * np.log10(np.mean(np.square(frames, dtype=np.float64), axis=1) + 1e-12)


def sound_bounds(audio16: np.ndarray) -> tuple[int, int]:
    """Sample range [start, end) at 16 kHz keeping at most MAX_EDGE_SILENCE of
    silence at either edge. `start` is even, so it falls on a whole sample at
    24 kHz too."""
    level = frame_energy_db(audio16)
    if len(level) == 0:
        raise AudioError("shorter than one frame")
    active = np.flatnonzero(level > level.max() - SILENCE_BELOW_PEAK_DB)
    margin = int(MAX_EDGE_SILENCE * RATE16)
    start = max(0, active[0] * HOP16 - margin) // 2 * 2
    end = min(len(audio16), (active[-1] + 1) * HOP16 + margin)
    return start, end


def fit_length(audio: np.ndarray, length: int) -> np.ndarray:
    """audio cut or zero-padded to `length` samples (float64)."""
    out = np.zeros(length, dtype=np.float64)
    out[: min(length, len(audio))] = audio[:length]
    return out


def prepare_audio(audio: np.ndarray, rate: int, gain: float, peak: float = 0.7
                  ) -> tuple[np.ndarray, np.ndarray, float]:
    """(audio16, audio24, seconds cut from the start): the trimmed sound at
    both rates, zero-padded to whole frames, with the same gain so that the
    peak is `peak * gain`. Frame i is [160 i, 160 i + 160) at 16 kHz and
    [240 i, 240 i + 240) at 24 kHz."""
    audio = np.asarray(audio, dtype=np.float64)
    if not np.all(np.isfinite(audio)):
        raise AudioError("holds NaN or infinite samples")
    at16 = soxr.resample(audio, rate, RATE16, quality="HQ") if rate != RATE16 else audio
    at24 = soxr.resample(audio, rate, RATE24, quality="HQ") if rate != RATE24 else audio
    start, end = sound_bounds(at16)
    frames = -(-(end - start) // HOP16)
    audio16 = fit_length(at16[start:end], frames * HOP16)
    audio24 = fit_length(at24[start * 3 // 2:end * 3 // 2], frames * HOP24)
    top = np.max(np.abs(audio16))
    if top < 1e-4:
        raise AudioError("silent")
    scale = peak * gain / top
    return (audio16 * scale).astype(np.float32), (audio24 * scale).astype(np.float32), start / RATE16


def frame_f0(audio16: np.ndarray, tracker: str = "dio") -> np.ndarray:
    """Pitch in Hz at the centre of each 10 ms frame, 0 where unvoiced.
    pyworld reports at t = 0, 10 ms, ...; the signal is advanced by half a
    frame so that those instants fall on the frame centres. "dio" (refined
    by stonemask) is about 40 times faster than "harvest", which finds
    more of the voiced frames."""
    import pyworld
    frames = len(audio16) // HOP16
    shifted = np.concatenate([audio16[HOP16 // 2:], np.zeros(HOP16 // 2)]).astype(np.float64)
    period = FRAME_SECONDS * 1000
    if tracker == "harvest":
        f0, _ = pyworld.harvest(shifted, RATE16, f0_floor=F0_FLOOR, f0_ceil=F0_CEIL, frame_period=period)
    else:
        f0, times = pyworld.dio(shifted, RATE16, f0_floor=F0_FLOOR, f0_ceil=F0_CEIL, frame_period=period)
        f0 = pyworld.stonemask(shifted, f0, times, RATE16)
    return fit_length(f0, frames).astype(np.float32)


def phone_index(phone: str) -> int:
    if phone in SILENCE_SYMBOLS:
        return 0
    try:
        return PHONE_INDEX[phone]
    except KeyError:
        raise ValueError(f"phone {phone!r} is not in the corpus inventory") from None


def frame_labels(segments: Sequence[tuple[str, float]], frames: int, offset: float) -> np.ndarray:
    """Phone index sounding at each frame centre, given (phone, end time)
    segments on the untrimmed time line and the `offset` seconds trimmed
    from its start. Time past the last segment is silence."""
    ends = np.array([end for _, end in segments])
    labels = np.array([phone_index(p) for p, _ in segments] + [0], dtype=np.int16)
    centres = offset + (np.arange(frames) + 0.5) * FRAME_SECONDS
    return labels[np.searchsorted(ends, centres, side="right")]


def collapse(labels: np.ndarray) -> np.ndarray:
    """The phone sequence spoken: runs merged, silence dropped."""
    labels = np.asarray(labels)
    if len(labels) == 0:
        return labels.astype(np.int16)
    runs = labels[np.concatenate([[True], labels[1:] != labels[:-1]])]
    return runs[runs != 0].astype(np.int16)


def _mfcc(audio16: np.ndarray, frames: int) -> np.ndarray:
    """Per-utterance normalised MFCCs, one column per frame, each window
    centred on its frame's centre. The mel levels are floored 40 dB under
    the loudest, so that one voice's digital silence and another's quiet
    noise look alike."""
    import librosa
    n_fft = 512
    padded = np.pad(audio16.astype(np.float32), (n_fft // 2 - HOP16 // 2, n_fft // 2))
    mel = librosa.feature.melspectrogram(y=padded, sr=RATE16, n_fft=n_fft, hop_length=HOP16,
                                         n_mels=40, center=False)[:, :frames]
    level = 10 * np.log10(mel + 1e-12)
    m = librosa.feature.mfcc(S=np.maximum(level, level.max() - 40), n_mfcc=13)
    return (m - m.mean(axis=1, keepdims=True)) / (m.std(axis=1, keepdims=True) + 1e-8)


def long_runs(mask: np.ndarray, min_length: int) -> np.ndarray:
    """`mask` with its runs of True shorter than `min_length` cleared."""
    edges = np.flatnonzero(np.diff(np.concatenate([[0], mask.astype(np.int8), [0]])))
    out = np.zeros(len(mask), dtype=bool)
    for start, stop in zip(edges[::2], edges[1::2]):
        out[start:stop] = stop - start >= min_length
    return out


def transfer_labels(reference16: np.ndarray, reference_labels: np.ndarray,
                    audio16: np.ndarray) -> np.ndarray:
    """Labels for `audio16` taken from a labelled rendition of the same text.
    Frames are paired by dynamic time warping of their MFCCs and each takes
    the label its partners hold most often. Voices pause in different places,
    so silence is then decided by the audio's own level: a loud frame never
    keeps `pau`, and a quiet stretch of at least 100 ms is always `pau`."""
    import librosa
    ref_frames, frames = len(reference_labels), len(audio16) // HOP16
    _, path = librosa.sequence.dtw(X=_mfcc(reference16, ref_frames), Y=_mfcc(audio16, frames),
                                   metric="euclidean")
    votes = np.zeros((frames, len(PHONE_INDEX)), dtype=np.int32)
    np.add.at(votes, (path[:, 1], reference_labels[path[:, 0]]), 1)
    labels = votes.argmax(axis=1)
    level = frame_energy_db(audio16)
    speech = votes[:, 1:].argmax(axis=1) + 1
    loud_silence = (level > level.max() - 35) & (labels == 0)
    has_speech_vote = votes[:, 1:].any(axis=1)
    labels[loud_silence & has_speech_vote] = speech[loud_silence & has_speech_vote]
    labelled = np.flatnonzero(labels != 0)
    for j in np.flatnonzero(loud_silence & ~has_speech_vote):   # nearest spoken label
        if len(labelled):
            labels[j] = labels[labelled[np.argmin(np.abs(labelled - j))]]
    labels[long_runs(level < level.max() - 45, 10)] = 0
    return labels.astype(np.int16)


def check_recording(audio: np.ndarray, rate: int, min_seconds: float = 1.0,
                    max_clipped: float = 0.01) -> Optional[str]:
    """Why a user's recording is unusable, or None if it is fine."""
    if len(audio) < min_seconds * rate:
        return f"too short ({len(audio) / rate:.2f} s, at least {min_seconds} s needed)"
    top = np.max(np.abs(audio))
    if top < 1e-3:
        return "silent"
    clipped = np.mean(np.abs(audio) >= 0.999 * max(top, 0.99))
    if clipped > max_clipped:
        return f"clipped ({100 * clipped:.1f} % of samples at full scale)"
    return None
