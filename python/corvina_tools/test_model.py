"""Writes a complete model set with random, well-conditioned weights.

Such a model is untrained: it turns speech into noise-like audio. It exists
to try the tools and to measure speed. Each model is described by its tensors
in file order; only shapes and scales matter for random weights. Matrices
get gain / sqrt(fan_in), chosen so activations stay of order one.
"""
import os

import numpy as np

from .model_files import PHONE, PITCH, SPEAKERS, WAVEFORM


def weight(shape, gain=1.0, fan_in=None):
    fan_in = fan_in or int(np.prod(shape[1:]))
    return ("normal", shape, gain / np.sqrt(fan_in), 0.0)


def bias(n, std=0.05, mean=0.0):
    return ("normal", (n,), std, mean)


def normal(shape, std):
    return ("normal", shape, std, 0.0)


def norm(n):
    return [("normal", (n,), 0.1, 1.0), bias(n)]      # scale, shift


def dense(n_out, n_in, gain=1.0):
    return [weight((n_out, n_in), gain), bias(n_out)]


def conv(n_out, n_in, taps, gain=1.0):
    return [weight((n_out, n_in, taps), gain), bias(n_out)]


def residual_block(channels, taps, hidden, expand_gain, project_gain):
    return ([normal((channels, taps), 1 / np.sqrt(taps)), bias(channels)]
            + dense(hidden, channels, expand_gain) + dense(channels, hidden, project_gain))


def phone_tensors():
    t = [weight((32, 10), 6.0)]                         # samples are of order 0.1
    t += [weight((o, i, 3), 2.0) for i, o in [(32, 64), (64, 128), (128, 256), (256, 256)]]
    t += [weight((256, 256, 2), 2.0)] + dense(256, 256)
    for _ in range(3):                                  # recurrent layers: input, then state
        t += dense(768, 256) + dense(768, 256, 0.9)     # a contractive recurrence
    t += conv(256, 256, 7) + norm(256)
    for _ in range(8):
        t += residual_block(256, 17, 768, 1.0, 0.7)
    return t + norm(256) + dense(256, 256)


def pitch_tensors():
    t = dense(192, 192) + dense(192, 192) + dense(192, 256, 4.0) + dense(192, 192)
    t += conv(192, 192, 3) + norm(192)
    for _ in range(6):
        t += residual_block(192, 33, 576, 1.5, 0.6)
    return t + norm(192) + dense(384, 192, 3.0)        # peaked, not one-hot, bin scores


def waveform_tensors():
    t = dense(256, 256) + [normal((384, 256), 0.5)] + dense(256, 4)
    t += conv(256, 256, 7) + norm(256)
    for _ in range(4):
        t += residual_block(256, 17, 768, 1.0, 0.5)
    t += norm(256) + conv(256, 256, 7)
    # Each upsampled sub-step meets two taps of each input channel.
    t += [weight((128, 256, 10), fan_in=256 * 2), bias(128)]
    t += [weight((64, 128, 6), fan_in=128 * 2), bias(64)]
    for channels in (128, 64):
        t += [x for taps in (3, 7, 11) for _ in range(6) for x in conv(channels, channels, taps, 0.8)]
    t += [weight((36, 64, 7)), bias(36, 0.3, -1.0)]    # log-magnitudes near exp(-1)
    t += [weight((384, 64), 3.0), ("phase_bias", (384,), 0.05, 0.0)]
    t += dense(384, 128, 0.6) + [normal((4, 63), 0.25)]
    return t


def _values(rng, kind, shape, std, mean):
    v = mean + std * rng.standard_normal(shape)
    if kind == "phase_bias":
        # The phase unit's state pairs start off the origin, so their
        # direction does not hang on rounding; input still turns them.
        v[256:256 + 72:2] += rng.choice([-2.5, 2.5], 36)
    return v


def parameter_bytes(tensors, rng):
    return b"".join(_values(rng, *t).astype("<f2").tobytes() for t in tensors)


MODELS = ((PHONE, phone_tensors), (PITCH, pitch_tensors), (WAVEFORM, waveform_tensors))


def write_test_model(directory, seed=0, speakers=4):
    """Write the four files of a random model set into directory (created if
    needed). Returns the directory."""
    if speakers < 1:
        raise ValueError("a model set needs at least one speaker")
    os.makedirs(directory, exist_ok=True)
    rng = np.random.default_rng(seed)
    for model_file, tensors in MODELS:
        data = parameter_bytes(tensors(), rng)
        assert len(data) == model_file.size, (model_file.file_name, len(data))
        _write_atomically(os.path.join(directory, model_file.file_name), data)
    rows = 0.3 * rng.standard_normal((speakers, 256))
    _write_atomically(os.path.join(directory, SPEAKERS.file_name), rows.astype("<f2").tobytes())
    return directory


def _write_atomically(path, data):
    partial = path + ".partial"
    try:
        with open(partial, "wb") as f:
            f.write(data)
        os.replace(partial, path)
    except BaseException:
        if os.path.exists(partial):
            os.remove(partial)
        raise
