"""Where the training corpus comes from: sentences picked from the fortunes
collection, and the speech synthesisers (flite, festival, espeak-ng) that
read them, each giving audio plus, where the synthesiser can tell, the end
time of every phone it spoke."""
from __future__ import annotations

import random
import re
import subprocess
import tempfile
from dataclasses import dataclass
from pathlib import Path
from typing import Optional, Sequence

import numpy as np
import soundfile

FORTUNES_DIR = Path("/usr/share/games/fortunes")

# The phone set flite and festival's English voices print; index 0 is silence.
PHONES = ("pau aa ae ah ao aw ax axr ay b ch d dh dx eh el em en er ey f g hh hv ih iy jh "
          "k l m n nx ng ow oy p r s sh t th uh uw v w y z zh").split()
PHONE_INDEX = {p: i for i, p in enumerate(PHONES)}
# Non-speech symbols some voices use at utterance edges or for breaths.
SILENCE_SYMBOLS = {"h#", "brth", "ssil", "sil"}

PLAIN_TEXT = re.compile(r"[A-Za-z][A-Za-z ,.;:!?'-]*[.!?]")
ALL_CAPS_WORD = re.compile(r"\b[A-Z]{2,}")
SPEAKER_TAG = re.compile(r"^\s*[A-Za-z ]{1,20}:", re.MULTILINE)
ATTRIBUTION = re.compile(r"^\s*--.*$", re.MULTILINE)


class SynthesisError(RuntimeError):
    """A synthesiser failed on one sentence (or batch of sentences)."""


# --------------------------------------------------------------- sentences

def fortune_entries(directory: Path = FORTUNES_DIR):
    """Raw entries of every fortune text file (the ones without an extension)."""
    for path in sorted(directory.iterdir()):
        if path.is_file() and not path.suffix:
            text = path.read_text(encoding="latin-1")
            yield from text.split("\n%\n")


def plain_sentence(entry: str, min_chars: int = 30, max_chars: int = 160) -> Optional[str]:
    """The entry as one line of plain English prose, or None if it is
    anything else (a dialogue, a poem laid out with tabs, shouting, code)."""
    entry = ATTRIBUTION.sub("", entry).strip()
    if "\t" in entry or SPEAKER_TAG.search(entry) or ALL_CAPS_WORD.search(entry):
        return None
    line = " ".join(entry.split())
    if not (min_chars <= len(line) <= max_chars) or not PLAIN_TEXT.fullmatch(line):
        return None
    if "''" in line or "--" in line or " '" in line or "' " in line:   # quoting, not apostrophes
        return None
    return line


def choose_sentences(count: int, seed: int = 1, directory: Path = FORTUNES_DIR) -> list[str]:
    """`count` distinct sentences in a seeded order. The order does not depend
    on `count`, so a larger corpus extends a smaller one."""
    seen, sentences = set(), []
    for entry in fortune_entries(directory):
        line = plain_sentence(entry)
        if line and line.lower() not in seen:
            seen.add(line.lower())
            sentences.append(line)
    sentences.sort()
    random.Random(seed).shuffle(sentences)
    if len(sentences) < count:
        raise ValueError(f"only {len(sentences)} usable sentences in {directory}, {count} asked for")
    return sentences[:count]


# ------------------------------------------------------------ synthesisers

@dataclass(frozen=True)
class Voice:
    name: str             # speaker name in the corpus, e.g. "flite-slt"
    synthesizer: str      # "flite", "festival" or "espeak-ng"
    voice: str            # the synthesiser's own name for it
    held_out: bool = False

    @property
    def has_phone_times(self) -> bool:
        return self.synthesizer != "espeak-ng"


@dataclass
class Rendition:
    audio: np.ndarray                       # float mono
    rate: int
    segments: Optional[list[tuple[str, float]]]   # (phone, end time in s), None if unknown


VOICES = (
    *(Voice(f"flite-{v}", "flite", v) for v in ("awb", "rms", "slt", "kal16", "kal")),
    Voice("festival-slt-hts", "festival", "cmu_us_slt_arctic_hts"),
    Voice("festival-kal", "festival", "kal_diphone"),
    Voice("espeak-us", "espeak-ng", "en-us"),
    Voice("espeak-us-f3", "espeak-ng", "en-us+f3"),
    Voice("espeak-m3", "espeak-ng", "en+m3"),
    Voice("espeak-rp-f2", "espeak-ng", "en-gb-x-rp+f2"),
    Voice("espeak-m5", "espeak-ng", "en+m5"),
    # Never trained on: for evaluation and demos with an unseen voice.
    Voice("espeak-scotland-f4", "espeak-ng", "en-gb-scotland+f4", held_out=True),
)
VOICES_BY_NAME = {v.name: v for v in VOICES}
# espeak-ng prints no phone times: its labels are carried over from this voice.
ALIGNMENT_REFERENCE = VOICES_BY_NAME["flite-kal16"]


def _run(command: Sequence[str], what: str, timeout: float = 120) -> str:
    try:
        done = subprocess.run(command, capture_output=True, text=True, timeout=timeout)
    except (OSError, subprocess.TimeoutExpired) as error:
        raise SynthesisError(f"{what}: {error}") from error
    if done.returncode != 0:
        raise SynthesisError(f"{what}: exit {done.returncode}: {done.stderr.strip()[-300:]}")
    return done.stdout


def _read(path: Path, what: str) -> tuple[np.ndarray, int]:
    try:
        audio, rate = soundfile.read(str(path), dtype="float64", always_2d=True)
    except (RuntimeError, OSError) as error:      # soundfile raises LibsndfileError(RuntimeError)
        raise SynthesisError(f"{what}: unreadable output: {error}") from error
    if len(audio) == 0:
        raise SynthesisError(f"{what}: empty output")
    return audio.mean(axis=1), rate


def synthesize_flite(voice: str, text: str, work: Path) -> Rendition:
    wav = work / "flite.wav"
    what = f"flite -voice {voice} {text!r}"
    printed = _run(["flite", "-voice", voice, "-psdur", "-t", text, "-o", str(wav)], what)
    segments = []
    for token in printed.split():
        phone, _, end = token.rpartition(":")
        segments.append((phone, float(end)))
    audio, rate = _read(wav, what)
    return Rendition(audio, rate, segments)


def synthesize_espeak(voice: str, text: str, work: Path) -> Rendition:
    wav = work / "espeak.wav"
    what = f"espeak-ng -v {voice} {text!r}"
    _run(["espeak-ng", "-v", voice, "-w", str(wav), text], what)
    audio, rate = _read(wav, what)
    return Rendition(audio, rate, None)


FESTIVAL_DUMP = """
(define (corpus-say text wavefile)
  (let ((utt (utt.synth (eval (list 'Utterance 'Text text)))))
    (utt.save.wave utt wavefile 'riff)
    (format t "@@utt %s\\n" wavefile)
    (mapcar (lambda (s) (format t "@@seg %s %s\\n" (item.name s) (item.feat s "end")))
            (utt.relation.items utt 'Segment))))
"""


def _scheme_string(text: str) -> str:
    return '"' + text.replace("\\", "\\\\").replace('"', '\\"') + '"'


def synthesize_festival_batch(voice: str, texts: Sequence[str], work: Path) -> list[Rendition | SynthesisError]:
    """All `texts` in one festival process (its start-up costs more than a
    sentence). A sentence festival leaves without a wave comes back as an error."""
    lines = [f"(voice_{voice})", FESTIVAL_DUMP]
    wavs = [work / f"festival{i}.wav" for i in range(len(texts))]
    for text, wav in zip(texts, wavs):
        lines.append(f"(corpus-say {_scheme_string(text)} {_scheme_string(str(wav))})")
    script = work / "batch.scm"
    script.write_text("\n".join(lines) + "\n")
    printed = _run(["festival", "-b", str(script)], f"festival {voice}", timeout=60 + 30 * len(texts))
    segments: dict[str, list] = {}
    current = None
    for line in printed.splitlines():
        if line.startswith("@@utt "):
            current = segments.setdefault(line[6:], [])
        elif line.startswith("@@seg ") and current is not None:
            _, phone, end = line.split()
            current.append((phone, float(end)))
    results = []
    for text, wav in zip(texts, wavs):
        what = f"festival {voice} {text!r}"
        try:
            if str(wav) not in segments:
                raise SynthesisError(f"{what}: no output")
            audio, rate = _read(wav, what)
            results.append(Rendition(audio, rate, segments[str(wav)]))
        except SynthesisError as error:
            results.append(error)
    return results


def synthesize(voice: Voice, texts: Sequence[str]) -> list[Rendition | SynthesisError]:
    """Render every text with `voice`; failures come back in place as errors."""
    with tempfile.TemporaryDirectory(prefix="corpus-") as tmp:
        work = Path(tmp)
        if voice.synthesizer == "festival":
            try:
                return synthesize_festival_batch(voice.voice, texts, work)
            except SynthesisError as error:
                return [error] * len(texts)
        one = synthesize_flite if voice.synthesizer == "flite" else synthesize_espeak
        results = []
        for text in texts:
            try:
                results.append(one(voice.voice, text, work))
            except SynthesisError as error:
                results.append(error)
        return results
