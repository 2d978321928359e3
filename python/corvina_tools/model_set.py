"""Loading a model directory into engine objects, every file checked first."""
import os

import numpy as np

import corvina

from .model_files import MODEL_FILES, PHONE, PITCH, SPEAKERS, WAVEFORM, ModelError, engine_path, open_checked


def read_speakers(path):
    """Speaker rows as float32 (n, 256), after the same checks as the
    parameter files. Read here rather than by the engine, whose reader writes
    as much as the file holds."""
    fd = open_checked(path, SPEAKERS)
    try:
        with os.fdopen(fd, "rb", closefd=False) as f:
            data = f.read()
    finally:
        os.close(fd)
    if len(data) == 0 or len(data) % 512:
        raise ModelError(path, "a non-zero multiple of 512 bytes", f"{len(data)} bytes while reading")
    return np.frombuffer(data, dtype="<f2").astype(np.float32).reshape(-1, 256)


def _read_parameters(model, path, model_file):
    fd = open_checked(path, model_file)
    try:
        model.read_parameters(engine_path(fd, path))
    finally:
        os.close(fd)
    return model


class ModelSet:
    """The three models of a directory and its speaker rows.

    One ModelSet may serve many streams; each stream gets its own contexts
    (see Converter)."""

    def __init__(self, phone, pitch, waveform, speakers, directory=None):
        self.phone, self.pitch, self.waveform = phone, pitch, waveform
        self.speakers = speakers
        self.directory = directory

    @classmethod
    def load(cls, directory):
        directory = os.fspath(directory)
        if not os.path.isdir(directory):
            found = "no such directory" if not os.path.exists(directory) else "not a directory"
            raise ModelError(directory, "a model directory holding "
                             + ", ".join(m.file_name for m in MODEL_FILES), found)
        paths = {m.kind: os.path.join(directory, m.file_name) for m in MODEL_FILES}
        # Speaker rows first: they are cheap and catch a wrong folder early.
        speakers = read_speakers(paths["speakers"])
        phone = _read_parameters(corvina.PhoneExtractor(), paths["phone"], PHONE)
        pitch = _read_parameters(corvina.PitchEstimator(), paths["pitch"], PITCH)
        waveform = _read_parameters(corvina.WaveformGenerator(), paths["waveform"], WAVEFORM)
        return cls(phone, pitch, waveform, speakers, directory)

    @property
    def n_speakers(self):
        return len(self.speakers)
