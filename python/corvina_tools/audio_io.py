"""Where `corvina convert` reads and writes audio: files, or standard input
and output ("-"), and the checks on an output path made before any work."""
import errno
import os
import re
import struct
import sys
import tempfile

import soundfile as sf

STDIO = "-"
# WAV sample types a stream can carry: (format code, bits per sample).
WAV_STREAM_SAMPLES = {"PCM_U8": (1, 8), "PCM_16": (1, 16), "PCM_24": (1, 24), "PCM_32": (1, 32),
                      "FLOAT": (3, 32), "DOUBLE": (3, 64)}
UNKNOWN_SIZE = 0xFFFFFFFF          # what a streamed WAV header says of its sizes
# Header sizes from this on are placeholders of streaming writers, not lengths.
PLACEHOLDER_SIZE = 0x7FFFF000


class ConversionError(Exception):
    """A file that could not be converted; the message says why."""


class InputError(ConversionError):
    """An input file that cannot be read as audio."""


def display_name(path):
    return {STDIO: "standard input"}.get(path, path)


def output_name(path):
    return {STDIO: "standard output"}.get(path, path)


def open_input(source):
    """A SoundFile reading source, a path or "-" (standard input, any format
    libsndfile reads from a stream: WAV, AIFF, AU, OGG, ...)."""
    name = display_name(source)
    if source != STDIO and not os.path.isfile(source):
        raise InputError(f"cannot read {name}: " + ("not a file" if os.path.exists(source) else "no such file"))
    if source == STDIO and sys.stdin.isatty():
        raise InputError(f"cannot read {name}: it is a terminal; pipe or redirect audio into it")
    try:
        if source == STDIO:
            return sf.SoundFile(sys.stdin.buffer.fileno(), closefd=False)
        return sf.SoundFile(source)
    except (sf.LibsndfileError, RuntimeError, OSError) as e:
        raise InputError(f"cannot read {name}: {e}") from None


def declared_frames(reader):
    """The frame count the input's header declares where libsndfile found
    the file shorter (it says so in its log; WAV-like and AIFF headers), else
    None."""
    log = reader.extra_info
    data = re.search(r"^data : (\d+) \(should be (\d+)\)", log, re.M)
    if data and 0 < int(data[2]) < int(data[1]) < PLACEHOLDER_SIZE:
        return round(reader.frames * int(data[1]) / int(data[2]))
    comm = re.search(r"Frame count read from 'COMM' chunk \((\d+)\)", log)
    return int(comm[1]) if comm else None


def check_destination(target):
    """Raise ValueError, in words about target, if it cannot be written;
    creates its folder if missing. Standard output passes unless it is a
    terminal."""
    if target == STDIO:
        if sys.stdout.isatty():
            raise ValueError("standard output is a terminal; redirect it to a file or a pipe")
        return
    if os.path.isdir(target):
        raise ValueError(f"cannot write {target}: it is a folder")
    folder = os.path.dirname(target) or os.curdir
    try:
        os.makedirs(folder, exist_ok=True)
    except (FileExistsError, NotADirectoryError):
        raise ValueError(f"cannot write {target}: {_file_in_the_way(folder)} is a file, not a folder") from None
    except OSError as e:
        raise ValueError(f"cannot write {target}: its folder {folder} cannot be created ({_reason(e)})") from None
    try:
        tempfile.TemporaryFile(dir=folder).close()        # leaves nothing behind
    except OSError as e:
        raise ValueError(f"cannot write {target}: no file can be made in its folder {folder} "
                         f"({_reason(e)})") from None
    if os.path.exists(target):
        try:
            os.close(os.open(target, os.O_WRONLY | os.O_NONBLOCK))     # changes nothing
        except OSError as e:
            raise ValueError(f"cannot write {target}: it exists and cannot be replaced ({_reason(e)})") from None


def _file_in_the_way(folder):
    """The part of a folder path that exists and is not a folder."""
    while not os.path.exists(folder):
        folder = os.path.dirname(folder) or os.curdir
    return folder


def _reason(error):
    return {errno.EPERM: "not permitted; is it marked immutable?", errno.EACCES: "permission denied",
            errno.EROFS: "the file system is read-only"}.get(error.errno, (error.strerror or str(error)).lower())


def open_output(path, rate, format_name, subtype):
    """A SoundFile writing one channel to path, or to standard output for
    "-". WAV goes to a pipe with its sizes unknown in the header (libsndfile
    writes WAV only where it can seek back to fill them in)."""
    if path != STDIO:
        return sf.SoundFile(path, "w", samplerate=rate, channels=1, format=format_name, subtype=subtype)
    fd = sys.stdout.buffer.fileno()
    if format_name != "WAV" or _seekable(fd):
        return sf.SoundFile(fd, "w", samplerate=rate, channels=1, format=format_name, subtype=subtype,
                            closefd=False)
    if subtype not in WAV_STREAM_SAMPLES:
        raise ValueError(f"a WAV stream carries {', '.join(WAV_STREAM_SAMPLES)} samples, not {subtype}")
    code, bits = WAV_STREAM_SAMPLES[subtype]
    block = bits // 8
    os.write(fd, b"RIFF" + struct.pack("<I", UNKNOWN_SIZE) + b"WAVEfmt "
             + struct.pack("<IHHIIHH", 16, code, 1, rate, rate * block, block, bits)
             + b"data" + struct.pack("<I", UNKNOWN_SIZE))
    return sf.SoundFile(fd, "w", samplerate=rate, channels=1, format="RAW", subtype=subtype, endian="LITTLE",
                        closefd=False)


def _seekable(fd):
    try:
        os.lseek(fd, 0, os.SEEK_CUR)
        return True
    except OSError:
        return False
