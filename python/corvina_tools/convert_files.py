"""Converting audio files: read in blocks, convert, write to a temporary file
that replaces the output only when the whole file is done (standard output
is written as the audio comes)."""
import os
import secrets
import sys
import time
from dataclasses import dataclass

import numpy as np
import soundfile as sf
from tqdm import tqdm

from .audio_io import (STDIO, ConversionError, InputError, declared_frames, display_name, open_input, open_output,
                       output_name)
from .converter import Converter

BLOCK_SECONDS = 1.0


@dataclass
class FileResult:
    source: str
    output: str
    seconds: float          # audio duration of the input as read
    processing: float       # wall time spent converting
    beyond_full_scale: int  # output samples above 1 in magnitude
    peak: float             # largest output magnitude
    integer_output: bool    # the output format clipped those samples
    nonfinite: int          # input samples replaced by zeros
    declared_seconds: float  # what the input's header promised

    def warnings(self):
        """What went wrong without stopping the conversion, in words."""
        notes = []
        if self.seconds == 0:
            notes.append("no audio in the input; the output is empty")
        elif self.declared_seconds > self.seconds:
            notes.append(f"the input ends after {self.seconds:.2f} s of the {self.declared_seconds:.2f} s "
                         "its header declares (a truncated file?)")
        if self.beyond_full_scale:
            notes.append(f"{self.beyond_full_scale} output samples beyond full scale (peak {self.peak:.2f})"
                         + (", clipped" if self.integer_output else ""))
        if self.nonfinite:
            notes.append(f"{self.nonfinite} non-finite input samples replaced by silence")
        return notes


def output_format(path, format_name=None, subtype=None):
    """The soundfile format and subtype for an output path: given, or from the
    extension (WAV for standard output) and the format's default. Raises
    ValueError if unusable."""
    if format_name:
        name = format_name.upper()
    else:
        name = "WAV" if path == STDIO else os.path.splitext(path)[1].lstrip(".").upper()
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
    """Convert one file; "-" is standard input or output. On any failure a
    target file is left untouched."""
    with open_input(source) as reader:
        fmt, subtype = output_format(target, format_name, subtype)
        converter = Converter(models, input_rate=reader.samplerate, output_rate=rate,
                              speaker=speaker, pitch_shift=pitch_shift, quality=quality)
        folder, name = os.path.split(os.path.abspath(target))
        partial = target if target == STDIO else os.path.join(folder, f".{name}.{secrets.token_hex(4)}.partial")
        try:
            try:
                out = open_output(partial, int(rate), fmt, subtype)
            except (sf.LibsndfileError, RuntimeError, OSError) as e:
                raise ConversionError(f"cannot write {output_name(target)}: {_why(e)}") from None
            start = time.perf_counter()
            with out:
                counts = _convert_stream(reader, converter, out, source, target, progress)
            elapsed = time.perf_counter() - start
            if target != STDIO:
                try:
                    os.replace(partial, target)
                except OSError as e:
                    raise ConversionError(f"cannot replace {target}: {e.strerror.lower()}") from None
        except BaseException:
            if target != STDIO and os.path.exists(partial):
                os.remove(partial)
            raise
        frames, beyond, peak = counts
        declared = declared_frames(reader) or (reader.frames if reader.seekable() else 0)
        return FileResult(source, output_name(target), frames / reader.samplerate, elapsed, beyond, peak,
                          not subtype.startswith(("FLOAT", "DOUBLE", "VORBIS", "OPUS")),
                          converter.nonfinite_samples, declared / reader.samplerate)


def _convert_stream(reader, converter, out, source, target, progress):
    """Everything the reader holds through converter into out; returns the
    frames read, the output samples beyond full scale and the peak."""
    block = max(1, int(reader.samplerate * BLOCK_SECONDS))
    frames = beyond = 0
    peak = 0.0
    while True:
        try:
            x = reader.read(block, dtype="float32", always_2d=True)
        except (sf.LibsndfileError, RuntimeError) as e:
            raise InputError(f"cannot read {display_name(source)}: {e}") from None
        frames += len(x)
        last = len(x) < block
        y = converter.process(x)
        if last:
            y = np.concatenate([y, converter.flush()])
        magnitude = np.abs(y)
        beyond += int(np.count_nonzero(magnitude > 1.0))
        peak = max(peak, float(magnitude.max(initial=0.0)))
        try:
            out.write(y)
        except (sf.LibsndfileError, RuntimeError, OSError) as e:
            raise ConversionError(f"cannot write {output_name(target)}: {_why(e)}") from None
        if progress is not None:
            progress.update(len(x) / reader.samplerate)
        if last:
            return frames, beyond, peak


def _why(error):
    """An error's reason without the file name (which may be the hidden
    temporary file)."""
    return getattr(error, "error_string", None) or getattr(error, "strerror", None) or str(error)


def plan_outputs(inputs, output, format_name=None):
    """(input, output path) pairs: one input to a file or to standard output
    ("-"), or any number into a folder (an existing folder, a path ending in a
    separator, or several inputs). Creates nothing."""
    if output == STDIO:
        if len(inputs) > 1:
            raise ValueError("standard output (-o -) takes one input")
        return [(inputs[0], output)]
    to_folder = len(inputs) > 1 or os.path.isdir(output) or output.endswith(os.sep)
    if not to_folder:
        return [(inputs[0], output)]
    extension = "." + (format_name or "wav").lower()
    pairs, seen = [], set()
    for source in inputs:
        stem = "stdin" if source == STDIO else os.path.splitext(os.path.basename(source))[0]
        target = os.path.join(output, stem + extension)
        if target in seen:
            raise ValueError(f"two inputs would both be written to {target}")
        seen.add(target)
        pairs.append((source, target))
    return pairs


def total_seconds(paths):
    """Duration of the readable input files, for the progress bar."""
    total = 0.0
    for path in paths:
        if path == STDIO:
            continue
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
