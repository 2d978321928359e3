"""Pitch-shifted copies of a corpus's training utterances.

Each synthetic voice speaks in its own narrow pitch range, so a generator
trained on them alone learns "this voice, this pitch": asked for a voice at
another voice's pitch (every conversion between a high and a low voice), it
falls back to the voice's habitual pitch and the intonation is lost. Copies
with the pitch moved by pitch-synchronous overlap-add (which keeps the
formants, so the voice stays the voice) teach it every voice at every pitch.
A copy is stored beside its original as `NNNNN.shift+S.npz` (S semitones)
with the same phone labels and the pitch track scaled.
"""
from __future__ import annotations

import zlib
from pathlib import Path

import numpy as np
import soxr

from .alignment import HOP16, RATE16, RATE24, fit_length

LOWEST_HZ, HIGHEST_HZ = 70.0, 450.0       # a copy's median pitch stays in a speaking range


def shift_pitch(audio24: np.ndarray, semitones: float) -> np.ndarray:
    """The 24 kHz audio with its pitch moved, duration and formants kept."""
    import parselmouth
    from parselmouth.praat import call
    sound = parselmouth.Sound(np.asarray(audio24, np.float64), RATE24)
    manipulation = call(sound, "To Manipulation", 0.01, 60, 600)
    tier = call(manipulation, "Extract pitch tier")
    call(tier, "Multiply frequencies", sound.xmin, sound.xmax, 2 ** (semitones / 12))
    call([tier, manipulation], "Replace pitch tier")
    out = call(manipulation, "Get resynthesis (overlap-add)").values[0]
    return fit_length(out, len(audio24))


def shifted_path(original: Path, semitones: int) -> Path:
    return original.with_name(f"{original.stem}.shift{semitones:+d}.npz")


def choose_shift(f0: np.ndarray, spread: int, seed: int, speaker: str, index: int, copy: int) -> int:
    """A random whole number of semitones, 2 to `spread` up or down, the
    same on every run, keeping the copy's median pitch in a speaking range."""
    voiced = f0[f0 > 0]
    median = float(np.median(voiced)) if len(voiced) else 150.0
    low = max(-spread, int(np.ceil(12 * np.log2(LOWEST_HZ / median))))
    high = min(spread, int(np.floor(12 * np.log2(HIGHEST_HZ / median))))
    choices = [s for s in range(low, high + 1) if abs(s) >= 2] or [0]
    rng = np.random.default_rng([seed, zlib.crc32(speaker.encode()), index, copy])
    return int(rng.choice(choices))


def shifted_copy(path: Path, semitones: int) -> dict:
    """The arrays of the copy of the utterance at `path`."""
    with np.load(path, allow_pickle=False) as z:
        arrays = {k: z[k] for k in z.files}
    audio24 = shift_pitch(arrays["audio24"], semitones).astype(np.float32)
    frames = len(arrays["audio16"]) // HOP16
    audio16 = fit_length(soxr.resample(audio24, RATE24, RATE16, quality="HQ"), frames * HOP16).astype(np.float32)
    arrays.update(audio24=audio24, audio16=audio16,
                  f0=(arrays["f0"] * 2 ** (semitones / 12)).astype(np.float32))
    return arrays


def shift_batch(speaker: str, items: list[tuple[Path, int]]) -> list[tuple[Path, str | None]]:
    """Write the copies of a batch of (original, semitones); a job of the
    corpus builder's pool."""
    from .corpus import save_utterance
    results = []
    for original, semitones in items:
        try:
            save_utterance(shifted_path(original, semitones), **shifted_copy(original, semitones))
            results.append((original, None))
        except Exception as error:       # one bad utterance must not end the build
            results.append((original, f"{speaker} {original.name} shifted {semitones:+d}: {error}"))
    return results


def plan_shift_jobs(out_dir: Path, speakers: list[str], held_back: set[int], copies: int, spread: int,
                    seed: int, batch: int = 16) -> list[tuple]:
    """(function, args, count) for every batch of copies not on disk yet;
    validation sentences get none, so validation stays what was spoken."""
    jobs = []
    for speaker in speakers:
        todo = []
        for original in sorted((out_dir / speaker).glob("[0-9][0-9][0-9][0-9][0-9].npz")):
            index = int(original.stem)
            if index in held_back:
                continue
            with np.load(original, allow_pickle=False) as z:
                f0 = z["f0"]
            for semitones in sorted({choose_shift(f0, spread, seed, speaker, index, c) for c in range(copies)}):
                if semitones and not shifted_path(original, semitones).exists():
                    todo.append((original, semitones))
        for start in range(0, len(todo), batch):
            part = todo[start:start + batch]
            jobs.append((shift_batch, (speaker, part), len(part)))
    return jobs
