"""Spectrogram pictures as PNG files, with nothing beyond NumPy and zlib."""
import struct
import zlib

import numpy as np


def log_spectrogram(audio, rate, n_fft=512, hop=None, top_hz=8000.0):
    """Log magnitude [frequency, time] in dB, low frequencies first."""
    hop = hop or rate // 100
    audio = np.asarray(audio, np.float64)
    if len(audio) < n_fft:
        audio = np.pad(audio, (0, n_fft - len(audio)))
    frames = np.lib.stride_tricks.sliding_window_view(audio, n_fft)[::hop] * np.hanning(n_fft)
    spectrum = np.abs(np.fft.rfft(frames, axis=1)).T
    spectrum = spectrum[:int(top_hz / rate * n_fft) + 1]
    return 20 * np.log10(spectrum + 1e-6)


def _colour(levels):
    """0…1 -> RGB: dark blue through red to pale yellow."""
    stops = np.array([[0, 0, 16], [40, 20, 110], [170, 30, 90], [245, 120, 30], [252, 250, 190]], float)
    x = np.clip(levels, 0, 1) * (len(stops) - 1)
    i = np.minimum(x.astype(int), len(stops) - 2)
    t = (x - i)[..., None]
    return (stops[i] * (1 - t) + stops[i + 1] * t).astype(np.uint8)


def write_png(path, rgb):
    """Write an [height, width, 3] uint8 picture."""
    height, width, _ = rgb.shape
    rows = b"".join(b"\0" + rgb[y].tobytes() for y in range(height))

    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data) & 0xFFFFFFFF)

    with open(path, "wb") as f:
        f.write(b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0))
                + chunk(b"IDAT", zlib.compress(rows, 6)) + chunk(b"IEND", b""))


def write_spectrograms(path, signals, dynamic_range=80.0, row_height=160):
    """One strip per (audio, rate) in `signals`, top to bottom, 0–8 kHz each,
    on a common time axis, separated by white lines."""
    strips = []
    for audio, rate in signals:
        s = log_spectrogram(audio, rate)
        s = (s - (s.max() - dynamic_range)) / dynamic_range
        index = np.linspace(0, s.shape[0] - 1, row_height).astype(int)
        strips.append(_colour(s[index][::-1]))            # high frequencies at the top
    width = max(s.shape[1] for s in strips)
    white = np.full((3, width, 3), 255, np.uint8)
    parts = []
    for s in strips:
        parts += [np.pad(s, ((0, 0), (0, width - s.shape[1]), (0, 0))), white]
    write_png(path, np.concatenate(parts[:-1]))
