"""Build a multi-speaker English speech corpus on this machine: fortune
sentences read by several synthetic voices (and, optionally, a user's own
recordings), stored one utterance per .npz with frame-aligned audio at 16
and 24 kHz, pitch and phone labels.

    python -m corvina_tools.training.corpus OUT [--sentences N] [--voices ...]
        [--own-recordings DIR] [--jobs J]
"""
from __future__ import annotations

import argparse
import json
import os
import sys
import zlib
from concurrent.futures import ProcessPoolExecutor, as_completed
from dataclasses import dataclass
from pathlib import Path
from typing import Iterable, Optional, Sequence

import numpy as np
import soundfile

from .alignment import (HOP16, RATE16, RATE24, AudioError, check_recording, collapse, frame_f0,
                        frame_labels, prepare_audio, transfer_labels)
from .corpus_sources import (ALIGNMENT_REFERENCE, PHONES, VOICES, VOICES_BY_NAME, Rendition,
                             SynthesisError, Voice, choose_sentences, synthesize)
from .pitch_shift import plan_shift_jobs

VALIDATION_EVERY = 20      # every 20th sentence is kept for validation, in all voices
BATCH = 8                  # sentences per job (festival starts once per job)
SENTENCES_FILE = "sentences.txt"


class CorpusError(RuntimeError):
    """The corpus cannot be built as asked."""


@dataclass(frozen=True)
class Recording:
    index: int
    path: Path
    text: str


def validation_sentences(count: int) -> list[int]:
    """Indices of the sentences kept out of training, in every voice. A
    sentence's side never changes when the corpus grows."""
    return [i for i in range(count) if i % VALIDATION_EVERY == VALIDATION_EVERY - 1]


def utterance_path(out_dir: Path, speaker: str, index: int) -> Path:
    return out_dir / speaker / f"{index:05d}.npz"


def utterance_gain(seed: int, speaker: str, index: int) -> float:
    """Random level in [0.5, 1), the same on every run for the same utterance."""
    rng = np.random.default_rng([seed, zlib.crc32(speaker.encode()), index])
    return float(rng.uniform(0.5, 1.0))


def save_utterance(path: Path, **arrays) -> None:
    """Write atomically, so an interrupted build never leaves a half file
    that a resumed build would take as done."""
    path.parent.mkdir(parents=True, exist_ok=True)
    partial = path.with_suffix(".partial")
    with open(partial, "wb") as f:
        np.savez(f, **arrays)
    os.replace(partial, path)


def utterance_arrays(rendition: Rendition, text: str, gain: float,
                     reference: Optional[tuple[np.ndarray, np.ndarray]] = None) -> dict:
    """The stored arrays of one utterance. Phone labels come from the
    rendition's own phone times, or else from `reference` (audio16, labels of
    another voice reading the same text), or are left out."""
    audio16, audio24, offset = prepare_audio(rendition.audio, rendition.rate, gain)
    frames = len(audio16) // HOP16
    arrays = dict(audio16=audio16, audio24=audio24, f0=frame_f0(audio16), text=np.array(text))
    if rendition.segments is not None:
        labels = frame_labels(rendition.segments, frames, offset)
    elif reference is not None:
        labels = transfer_labels(reference[0], reference[1], audio16)
    else:
        return arrays
    arrays.update(phones=labels, phone_sequence=collapse(labels))
    return arrays


def _reference_labels(texts: Sequence[str]) -> list:
    """The alignment reference voice's audio16 and labels for each text."""
    out = []
    for rendition in synthesize(ALIGNMENT_REFERENCE, texts):
        try:
            if isinstance(rendition, SynthesisError):
                raise rendition
            audio16, _, offset = prepare_audio(rendition.audio, rendition.rate, 1.0)
            out.append((audio16, frame_labels(rendition.segments, len(audio16) // HOP16, offset)))
        except (SynthesisError, AudioError, ValueError) as error:
            out.append(SynthesisError(f"alignment reference {ALIGNMENT_REFERENCE.name}: {error}"))
    return out


def render_batch(voice: Voice, items: Sequence[tuple[int, str]], out_dir: Path, seed: int
                 ) -> list[tuple[int, Optional[str]]]:
    """Synthesise and store the given (index, text) items of one voice.
    Returns (index, error message or None) per item."""
    texts = [text for _, text in items]
    renditions = synthesize(voice, texts)
    references = [None] * len(items) if voice.has_phone_times else _reference_labels(texts)
    results = []
    for (index, text), rendition, reference in zip(items, renditions, references):
        try:
            for failure in (rendition, reference):
                if isinstance(failure, Exception):
                    raise failure
            arrays = utterance_arrays(rendition, text, utterance_gain(seed, voice.name, index), reference)
            save_utterance(utterance_path(out_dir, voice.name, index), **arrays)
            results.append((index, None))
        except (SynthesisError, AudioError, ValueError) as error:
            results.append((index, f"{voice.name} #{index}: {error}"))
    return results


def read_recording(path: Path) -> tuple[np.ndarray, int]:
    """(mono audio, rate) of a user's file; AudioError if it is unusable."""
    try:
        audio, rate = soundfile.read(str(path), dtype="float64", always_2d=True)
    except Exception as error:      # soundfile raises several types for bad files
        raise AudioError(f"unreadable ({error})") from error
    audio = audio.mean(axis=1)
    problem = check_recording(audio, rate)
    if problem:
        raise AudioError(problem)
    return audio, rate


def render_recordings(speaker: str, recordings: Sequence[Recording], out_dir: Path, seed: int
                      ) -> list[tuple[int, Optional[str]]]:
    """Store a user's recordings like synthetic utterances, without phone
    labels. Returns (index, error message or None) per recording."""
    results = []
    for rec in recordings:
        try:
            audio, rate = read_recording(rec.path)
            audio16, audio24, _ = prepare_audio(audio, rate, utterance_gain(seed, speaker, rec.index))
            save_utterance(utterance_path(out_dir, speaker, rec.index), audio16=audio16, audio24=audio24,
                           f0=frame_f0(audio16), text=np.array(rec.text), source=np.array(rec.path.name))
            results.append((rec.index, None))
        except (AudioError, ValueError) as error:
            results.append((rec.index, f"{rec.path}: {error}"))
    return results


def scan_recordings(directory: Path, min_seconds: float) -> dict[str, list[Recording]]:
    """Usable recordings per speaker folder ("own-<folder>"). Bad files are
    reported on stderr and left out; a speaker with less than `min_seconds`
    of usable audio is refused."""
    if not directory.is_dir():
        raise CorpusError(f"{directory}: not a folder of speaker folders")
    speakers = {}
    for folder in sorted(p for p in directory.iterdir() if p.is_dir()):
        files = sorted(p for p in folder.iterdir()
                       if p.is_file() and p.suffix.lower() != ".txt" and not p.name.startswith("."))
        usable, seconds = [], 0.0
        for index, path in enumerate(files):
            try:
                audio, rate = read_recording(path)
            except AudioError as error:
                print(f"skipping {path}: {error}", file=sys.stderr)
                continue
            seconds += len(audio) / rate
            transcript = path.with_suffix(".txt")
            text = transcript.read_text(errors="replace").strip() if transcript.exists() else ""
            usable.append(Recording(index, path, text))
        if seconds < min_seconds:
            raise CorpusError(f"{folder}: only {seconds:.1f} s of usable audio in {len(usable)} files, "
                              f"at least {min_seconds:.0f} s needed")
        speakers[f"own-{folder.name}"] = usable
    if not speakers:
        raise CorpusError(f"{directory}: no speaker folders")
    return speakers


def _batches(items: list, size: int = BATCH) -> Iterable[list]:
    for start in range(0, len(items), size):
        yield items[start:start + size]


def plan_jobs(out_dir: Path, sentences: Sequence[str], voices: Sequence[Voice],
              recordings: dict[str, list[Recording]], seed: int) -> list[tuple]:
    """(function, args, count) for every batch with something left to make.
    Voices alternate batch by batch, so a partial corpus has every voice."""
    jobs = []
    for start in range(0, len(sentences), BATCH):
        for voice in voices:
            batch = [(i, sentences[i]) for i in range(start, min(start + BATCH, len(sentences)))
                     if not utterance_path(out_dir, voice.name, i).exists()]
            if batch:
                jobs.append((render_batch, (voice, batch, out_dir, seed), len(batch)))
    for speaker, recs in recordings.items():
        todo = [r for r in recs if not utterance_path(out_dir, speaker, r.index).exists()]
        for batch in _batches(todo):
            jobs.append((render_recordings, (speaker, batch, out_dir, seed), len(batch)))
    return jobs


def run_jobs(jobs: list[tuple], workers: int) -> list[str]:
    """Run the jobs with a progress bar; returns the failure messages."""
    from tqdm import tqdm
    failures = []
    bar = tqdm(total=sum(count for *_, count in jobs), unit="utt", file=sys.stderr, dynamic_ncols=True)

    def collect(results):
        for _, error in results:
            if error:
                failures.append(error)
                bar.write(f"failed: {error}", file=sys.stderr)
        bar.update(len(results))

    if workers <= 1:
        for function, args, _ in jobs:
            collect(function(*args))
    else:
        with ProcessPoolExecutor(max_workers=workers) as pool:
            for future in as_completed([pool.submit(function, *args) for function, args, _ in jobs]):
                collect(future.result())
    bar.close()
    return failures


def speaker_summary(out_dir: Path, name: str, synthesizer: str, held_out: bool) -> dict:
    files = sorted((out_dir / name).glob("*.npz"))
    samples = 0
    for path in files:
        with np.load(path) as utterance:
            samples += len(utterance["audio16"])
    return dict(name=name, synthesizer=synthesizer, held_out=held_out, utterances=len(files),
                seconds=round(samples / RATE16, 2))


def build_corpus(out_dir: Path | str, sentences: int = 400, voices: Optional[Sequence[str]] = None,
                 jobs: int = 2, own_recordings: Optional[Path | str] = None, seed: int = 1,
                 min_own_seconds: float = 60.0, pitch_shifted: int = 0, shift_spread: int = 8) -> dict:
    """Make (or complete) the corpus in `out_dir` and return its description,
    also written to `out_dir/corpus.json`. Utterances already on disk are kept."""
    out_dir = Path(out_dir)
    names = list(voices) if voices is not None else [v.name for v in VOICES]
    unknown = [n for n in names if n not in VOICES_BY_NAME]
    if unknown:
        raise CorpusError(f"unknown voice(s) {', '.join(unknown)}; known: {', '.join(VOICES_BY_NAME)}")
    chosen = [VOICES_BY_NAME[n] for n in names]
    recordings = scan_recordings(Path(own_recordings), min_own_seconds) if own_recordings else {}
    texts = choose_sentences(sentences, seed) if sentences > 0 else []
    out_dir.mkdir(parents=True, exist_ok=True)
    (out_dir / SENTENCES_FILE).write_text("".join(t + "\n" for t in texts))

    failures = run_jobs(plan_jobs(out_dir, texts, chosen, recordings, seed), jobs)
    if pitch_shifted:
        trained = [v.name for v in chosen if not v.held_out] + list(recordings)
        failures += run_jobs(plan_shift_jobs(out_dir, trained, set(validation_sentences(len(texts))),
                                             pitch_shifted, shift_spread, seed), jobs)

    speakers = [speaker_summary(out_dir, v.name, v.synthesizer, v.held_out) for v in chosen]
    speakers += [speaker_summary(out_dir, s, "recording", False) for s in recordings]
    description = dict(
        phones=PHONES, speakers=speakers, sample_rates=dict(audio16=RATE16, audio24=RATE24),
        frame_seconds=HOP16 / RATE16, sentences_file=SENTENCES_FILE, sentences=len(texts),
        validation_sentences=validation_sentences(len(texts)),
        failures=len(failures))
    (out_dir / "corpus.json").write_text(json.dumps(description, indent=1) + "\n")
    return description


def add_arguments(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("out", type=Path, help="corpus folder (made or completed)")
    parser.add_argument("--sentences", type=int, default=400, metavar="N", help="sentences per voice (default 400)")
    parser.add_argument("--voices", nargs="+", metavar="VOICE",
                        help=f"voices to use (default all): {' '.join(VOICES_BY_NAME)}")
    parser.add_argument("--own-recordings", type=Path, metavar="DIR",
                        help="folder with one subfolder of recordings per speaker")
    parser.add_argument("--min-own-seconds", type=float, default=60.0, metavar="S",
                        help="least usable audio per own speaker (default 60)")
    parser.add_argument("--pitch-shifted", type=int, default=0, metavar="N",
                        help="also N copies of every training utterance at another pitch (2 to 8 semitones up "
                             "or down, formants kept), so a voice learns pitches it never spoke (default 0)")
    parser.add_argument("--jobs", type=int, default=2, metavar="J", help="worker processes (default 2)")
    parser.add_argument("--seed", type=int, default=1, help="seed of sentence order and gains")


def run(args: argparse.Namespace) -> int:
    try:
        description = build_corpus(args.out, args.sentences, args.voices, args.jobs,
                                   args.own_recordings, args.seed, args.min_own_seconds, args.pitch_shifted)
    except CorpusError as error:
        print(f"corvina corpus: {error}", file=sys.stderr)
        return 1
    hours = sum(s["seconds"] for s in description["speakers"]) / 3600
    count = sum(s["utterances"] for s in description["speakers"])
    print(f"{args.out}: {len(description['speakers'])} speakers, {count} utterances, {hours:.2f} h")
    return 0


def main(argv: Optional[Sequence[str]] = None) -> int:
    parser = argparse.ArgumentParser(prog="corvina corpus", description=__doc__.split("\n\n")[0])
    add_arguments(parser)
    return run(parser.parse_args(argv))


if __name__ == "__main__":
    sys.exit(main())
