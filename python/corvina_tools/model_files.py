"""The files of a model set and the checks that run before the engine sees them.

The engine aborts the process on a parameter file of the wrong size, and its
speaker reader trusts the file's length. Everything here is checked first, so
a bad file becomes a ModelError instead.
"""
import os
import tempfile
import stat
from dataclasses import dataclass

import numpy as np

import corvina

SPEAKER_ROW_BYTES = corvina._SPEAKER_EMBEDDING_BYTES  # 256 half floats
SPEAKER_CHANNELS = 256


@dataclass(frozen=True)
class ModelFile:
    kind: str                    # "phone", "pitch", "waveform" or "speakers"
    file_name: str
    description: str
    size: int = 0                # exact byte count; 0 for the speaker file


# Exact sizes from the engine's C header (CORVINA_*_PARAMETER_BYTES).
PHONE = ModelFile("phone", "phone_extractor.bin", "phone extractor parameters",
                  corvina._PHONE_EXTRACTOR_PARAMETER_BYTES)
PITCH = ModelFile("pitch", "pitch_estimator.bin", "pitch estimator parameters",
                  corvina._PITCH_ESTIMATOR_PARAMETER_BYTES)
WAVEFORM = ModelFile("waveform", "waveform_generator.bin", "waveform generator parameters",
                     corvina._WAVEFORM_GENERATOR_PARAMETER_BYTES)
SPEAKERS = ModelFile("speakers", "speaker_embeddings.bin", "speaker embeddings")
MODEL_FILES = (PHONE, PITCH, WAVEFORM, SPEAKERS)


class ModelError(Exception):
    """A model file or directory that cannot be used; names the file,
    what was expected and what was found."""

    def __init__(self, path, expected, found):
        self.path, self.expected, self.found = os.fspath(path), expected, found
        super().__init__(f"{self.path}: expected {expected}, found {found}")


def expected_size_text(model_file):
    if model_file is SPEAKERS:
        return f"a non-zero multiple of {SPEAKER_ROW_BYTES} bytes"
    return f"exactly {model_file.size} bytes"


def size_fits(model_file, size):
    if model_file is SPEAKERS:
        return size > 0 and size % SPEAKER_ROW_BYTES == 0
    return size == model_file.size


def open_checked(path, model_file):
    """Open a model file for reading and check it (size, readable to the
    end, finite values); returns the open file descriptor (the caller closes
    it) or raises ModelError.

    The checks run on the opened descriptor, so what was checked is the file
    that is read even if the name is replaced in the meantime.
    """
    what = f"a readable {model_file.description} file of {expected_size_text(model_file)}"
    try:
        fd = os.open(path, os.O_RDONLY | getattr(os, "O_CLOEXEC", 0) | getattr(os, "O_NONBLOCK", 0))
    except FileNotFoundError:
        raise ModelError(path, what, "no such file") from None
    except OSError as e:
        raise ModelError(path, what, f"a file that cannot be opened ({e.strerror})") from None
    try:
        info = os.fstat(fd)
        if not stat.S_ISREG(info.st_mode):
            kind = "a directory" if stat.S_ISDIR(info.st_mode) else "not a regular file"
            raise ModelError(path, what, kind)
        if not size_fits(model_file, info.st_size):
            raise ModelError(path, what, f"{info.st_size} bytes")
        try:
            data = os.pread(fd, info.st_size, 0)
        except OSError as e:
            raise ModelError(path, what, f"a file that cannot be read ({e.strerror})") from None
        if len(data) != info.st_size:
            raise ModelError(path, what, "a file that ends early")
        bad = nonfinite_halves(data)
        if bad:
            raise ModelError(path, "finite values only", f"{bad} non-finite values")
        return fd
    except BaseException:
        os.close(fd)
        raise


def nonfinite_halves(data):
    """How many of the little-endian half floats in data are infinite or NaN
    (all exponent bits set); one such weight can make every output sample NaN."""
    exponent = np.frombuffer(data, "<u2") & 0x7C00
    return int(np.count_nonzero(exponent == 0x7C00))


def engine_path(fd, path):
    """A path that names exactly the open, checked file where the system
    offers one (Linux /proc); otherwise the original path."""
    proc = f"/proc/self/fd/{fd}"
    return proc if os.path.exists(proc) else os.fspath(path)


def identify(path):
    """The ModelFile a single file is, judged by its name, then by its size;
    None if neither fits."""
    by_name = next((m for m in MODEL_FILES if m.file_name == os.path.basename(path)), None)
    if by_name is not None:
        return by_name
    size = os.stat(path).st_size
    return next((m for m in MODEL_FILES if size_fits(m, size)), None)


def write_atomically(path, data):
    """Write a file whole or not at all: a temporary beside it, then renamed."""
    path = os.fspath(path)
    folder = os.path.dirname(os.path.abspath(path))
    fd, temporary = tempfile.mkstemp(dir=folder, prefix=f".{os.path.basename(path)}.", suffix=".partial")
    try:
        with os.fdopen(fd, "wb") as f:
            f.write(data)
        os.chmod(temporary, 0o644)
        os.replace(temporary, path)
    except BaseException:
        os.unlink(temporary)
        raise
