"""Converting audio files: read in blocks, convert, write to a temporary file
that replaces the output only when the whole file is done."""
import os
import secrets
import sys
import time
from dataclasses import dataclass

import numpy as np
import soundfile as sf
from tqdm import tqdm

from .converter import Converter

BLOCK_SECONDS = 1.0


class ConversionError(Exception):
    """A file that could not be converted; the message says why."""


class InputError(ConversionError):
    """An input file that cannot be read as audio."""


@dataclass
class FileResult:
    output: str
    seconds: float          # audio duration of the input
    processing: float       # wall time spent converting
    clipped: int            # output samples beyond full scale in an integer format
    nonfinite: int          # input samples replaced by zeros


def output_format(path, format_name=None, subtype=None):
    """The soundfile format and subtype for an output path: given, or from the
    extension and the format's default. Raises ValueError if unusable."""
    if format_name:
        name = format_name.upper()
    else:
        name = os.path.splitext(path)[1].lstrip(".").upper()
        name = {"AIF": "AIFF", "OGA": "OGG", "OPUS": "OGG"}.get(name, name)
    if name not in sf.available_formats():
        raise ValueError(f"unknown output format {name or '(no extension)'!r} for {path}; "
                         f"choose one of: {', '.join(sorted(sf.available_formats()))}")
    subtype = subtype or sf.default_subtype(name)
    if not sf.check_format(name, subtype):
        raise ValueError(f"format {name} cannot hold {subtype} samples")
    return name, subtype


def convert_file(models, source, target, *, rate=24000, format_name=None, subtype=None,
                 speaker=0, pitch_shift=0.0, quality="HQ", progress=None):
    """Convert one file. On any failure the target is left untouched."""
    if not os.path.isfile(source):
        raise InputError(f"cannot read {source}: " + ("not a file" if os.path.exists(source) else "no such file"))
    try:
        reader = sf.SoundFile(source)
    except (sf.LibsndfileError, RuntimeError, OSError) as e:
        raise InputError(f"cannot read {source}: {e}") from None
    with reader:
        fmt, subtype = output_format(target, format_name, subtype)
        converter = Converter(models, input_rate=reader.samplerate, output_rate=rate,
                              speaker=speaker, pitch_shift=pitch_shift, quality=quality)
        integer = not subtype.startswith(("FLOAT", "DOUBLE", "VORBIS", "OPUS"))
        folder, name = os.path.split(os.path.abspath(target))
        partial = os.path.join(folder, f".{name}.{secrets.token_hex(4)}.partial")
        try:
            clipped, start = 0, time.perf_counter()
            try:
                out = sf.SoundFile(partial, "w", samplerate=int(rate), channels=1, format=fmt, subtype=subtype)
            except (sf.LibsndfileError, RuntimeError, OSError) as e:
                raise ConversionError(f"cannot write {target}: {e}") from None
            with out:
                block = max(1, int(reader.samplerate * BLOCK_SECONDS))
                while True:
                    try:
                        x = reader.read(block, dtype="float32", always_2d=True)
                    except (sf.LibsndfileError, RuntimeError) as e:
                        raise InputError(f"cannot read {source}: {e}") from None
                    last = len(x) < block
                    y = converter.process(x)
                    if last:
                        y = np.concatenate([y, converter.flush()])
                    if integer:
                        clipped += int(np.count_nonzero(np.abs(y) > 1.0))
                    out.write(y)
                    if progress is not None:
                        progress.update(len(x) / reader.samplerate)
                    if last:
                        break
            elapsed = time.perf_counter() - start
            os.replace(partial, target)
        except BaseException:
            if os.path.exists(partial):
                os.remove(partial)
            raise
        return FileResult(target, reader.frames / reader.samplerate, elapsed, clipped,
                          converter.nonfinite_samples)


def plan_outputs(inputs, output, format_name=None):
    """(input, output path) pairs: one input to a file, or any number into a
    folder (an existing folder, a path ending in a separator, or several
    inputs). Creates nothing."""
    to_folder = len(inputs) > 1 or os.path.isdir(output) or output.endswith(os.sep)
    if not to_folder:
        return [(inputs[0], output)]
    extension = "." + (format_name or "wav").lower()
    pairs, seen = [], set()
    for source in inputs:
        target = os.path.join(output, os.path.splitext(os.path.basename(source))[0] + extension)
        if target in seen:
            raise ValueError(f"two inputs would both be written to {target}")
        seen.add(target)
        pairs.append((source, target))
    return pairs


def total_seconds(paths):
    """Duration of the readable inputs, for the progress bar."""
    total = 0.0
    for path in paths:
        try:
            info = sf.info(path)
            total += info.frames / info.samplerate
        except Exception:
            pass
    return total


def progress_bar(total_seconds, stream=None):
    stream = stream or sys.stderr
    return tqdm(total=round(total_seconds, 2), unit="s", unit_scale=False, file=stream,
                disable=not stream.isatty(), bar_format="{l_bar}{bar}| {n:.1f}/{total:.1f} s audio [{elapsed}<{remaining}]")
