"""Writes a complete model set with random, well-conditioned weights.

Such a model is untrained: it turns speech into noise-like audio. It exists
to try the tools and to measure speed. The tensors, their order and the
scales of their random values come from the models' layouts.
"""
import os

import numpy as np

from .layouts import PHONE_LAYOUT, PITCH_LAYOUT, WAVEFORM_LAYOUT
from .model_files import PHONE, PITCH, SPEAKERS, WAVEFORM, write_atomically


def _values(rng, tensor):
    v = tensor.mean + tensor.std * rng.standard_normal(tensor.shape)
    if tensor.name == "gru.bias_ih_l0" and tensor.shape == (384,):
        # The phase unit's state pairs start off the origin, so their
        # direction does not hang on rounding; input still turns them.
        v[256:256 + 72:2] += rng.choice([-2.5, 2.5], 36)
    return v


def parameter_bytes(layout, rng):
    return b"".join(_values(rng, t).astype("<f2").tobytes() for t in layout)


MODELS = ((PHONE, PHONE_LAYOUT), (PITCH, PITCH_LAYOUT), (WAVEFORM, WAVEFORM_LAYOUT))


def write_test_model(directory, seed=0, speakers=4):
    """Write the four files of a random model set into directory (created if
    needed). Returns the directory."""
    if speakers < 1:
        raise ValueError("a model set needs at least one speaker")
    os.makedirs(directory, exist_ok=True)
    rng = np.random.default_rng(seed)
    for model_file, layout in MODELS:
        data = parameter_bytes(layout, rng)
        assert len(data) == model_file.size, (model_file.file_name, len(data))
        write_atomically(os.path.join(directory, model_file.file_name), data)
    rows = 0.3 * rng.standard_normal((speakers, 256))
    write_atomically(os.path.join(directory, SPEAKERS.file_name), rows.astype("<f2").tobytes())
    return directory
