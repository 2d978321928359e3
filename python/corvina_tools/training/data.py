"""Reading a corpus made by `corvina corpus`: utterances of 16 kHz and 24 kHz
audio with per-frame pitch and phone labels, split by sentence into training
and validation, served as random fixed-length segments."""
import json
import os
from dataclasses import dataclass

import numpy as np

IN_HOP, OUT_HOP = 160, 240


class CorpusError(ValueError):
    """A corpus folder that cannot be trained on; says why."""


@dataclass
class Utterance:
    speaker: int                 # row in the corpus's training speaker list
    path: str
    sentence: int
    audio16: np.ndarray
    audio24: np.ndarray
    f0: np.ndarray
    phones: np.ndarray = None
    phone_sequence: np.ndarray = None
    semitones: int = 0           # a pitch-shifted copy's shift (0: as spoken)

    @property
    def frames(self):
        return len(self.audio16) // IN_HOP


class Corpus:
    """The utterances of a corpus folder, held in memory.

    speakers: names to load (default: every speaker not held out)."""

    def __init__(self, folder, speakers=None, min_seconds=20.0, sentences=None, pitch_shifted=True):
        self.folder = os.fspath(folder)
        index_path = os.path.join(self.folder, "corpus.json")
        try:
            with open(index_path) as f:
                self.index = json.load(f)
        except (OSError, ValueError) as e:
            raise CorpusError(f"{index_path}: not a readable corpus index ({e})") from None
        known = {s["name"]: s for s in self.index["speakers"]}
        if speakers is None:
            speakers = [s["name"] for s in self.index["speakers"]
                        if not s.get("held_out") and s.get("utterances", 1) > 0]
        unknown = [s for s in speakers if s not in known]
        if unknown:
            raise CorpusError(f"{self.folder}: no speaker(s) {', '.join(unknown)} (it has {', '.join(known)})")
        self.speakers = list(speakers)
        self.phones = self.index.get("phones", [])
        self.held_out = set(self.index.get("validation_sentences", []))
        self.sentences = sentences            # only utterances of sentences below this index
        self.pitch_shifted = pitch_shifted    # whether pitch-shifted copies are loaded
        self.train, self.validation, self._loaded = [], [], set()
        self.refresh()
        if self.seconds < min_seconds:
            raise CorpusError(f"{self.folder}: {self.seconds:.1f} s of training audio for "
                              f"{', '.join(self.speakers)}; at least {min_seconds:g} s are needed")

    def refresh(self):
        """Load the utterances not loaded yet (a corpus may still be growing)."""
        for row, name in enumerate(self.speakers):
            folder = os.path.join(self.folder, name)
            for file in sorted(os.listdir(folder)) if os.path.isdir(folder) else []:
                path = os.path.join(folder, file)
                if file.endswith(".npz") and path not in self._loaded:
                    stem, _, shift = file[:-4].partition(".shift")     # NNNNN or NNNNN.shift+S
                    if self.sentences is not None and stem.isdigit() and int(stem) >= self.sentences:
                        continue
                    if shift and not self.pitch_shifted:
                        continue
                    u = _read(path, row)
                    (self.validation if u.sentence in self.held_out else self.train).append(u)
                    self._loaded.add(path)
        self.seconds = sum(len(u.audio16) for u in self.train) / 16000

    def segments(self, rng, batch, frames, labelled=False):
        """A batch of random segments: lists of (utterance, first frame),
        each utterance at least `frames` long (shorter ones are padded by the
        caller's slicing), drawn evenly over speakers."""
        pool = [u for u in self.train if not labelled or u.phones is not None]
        if not pool:
            raise CorpusError(f"{self.folder}: no utterances with phone labels")
        picks = [pool[i] for i in rng.integers(0, len(pool), batch)]
        return [(u, int(rng.integers(0, max(1, u.frames - frames + 1)))) for u in picks]


def _read(path, row):
    with np.load(path, allow_pickle=False) as z:
        name, _, shift = os.path.basename(path)[:-4].partition(".shift")
        return Utterance(
            speaker=row, path=path, sentence=int(name) if name.isdigit() else -1, semitones=int(shift or 0),
            audio16=z["audio16"].astype(np.float32), audio24=z["audio24"].astype(np.float32),
            f0=z["f0"].astype(np.float32),
            phones=z["phones"].astype(np.int64) if "phones" in z else None,
            phone_sequence=z["phone_sequence"].astype(np.int64) if "phone_sequence" in z else None)


def cut(array, start, length, hop=1):
    """array[start * hop : (start + length) * hop], zero-padded to full length."""
    piece = array[start * hop:(start + length) * hop]
    if len(piece) < length * hop:
        piece = np.concatenate([piece, np.zeros(length * hop - len(piece), dtype=array.dtype)])
    return piece
