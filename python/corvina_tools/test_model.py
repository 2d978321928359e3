"""Writes a complete model set with random, well-conditioned weights.

Such a model is untrained: it turns speech into noise-like audio. It exists
to try the tools, to measure speed and to test the engine against the
float64 references. The tensors, their order and the scales of their random
values come from the models' layouts.
"""
import os

import numpy as np

from .layouts import PHONE_LAYOUT, PITCH_LAYOUT, WAVEFORM_LAYOUT
from .model_files import PHONE, PITCH, SPEAKERS, WAVEFORM, write_atomically

MODELS = {"phone": (PHONE, PHONE_LAYOUT), "pitch": (PITCH, PITCH_LAYOUT), "waveform": (WAVEFORM, WAVEFORM_LAYOUT)}


def _values(rng, tensor):
    v = tensor.mean + tensor.std * rng.standard_normal(tensor.shape)
    if tensor.name == "gru.bias_ih_l0" and tensor.shape == (384,):
        # The phase unit's state pairs start off the origin, so their
        # direction does not hang on rounding; input still turns them.
        v[256:256 + 72:2] += rng.choice([-2.5, 2.5], 36)
    return v.astype(np.float16)


def random_model(seed: int = 0, speakers: int = 4) -> dict:
    """Random weights of a model set: for "phone", "pitch" and "waveform" a
    {tensor name: float16 array} dict in file order, and "speakers", an
    (n, 256) float16 array."""
    if speakers < 1:
        raise ValueError("a model set needs at least one speaker")
    rng = np.random.default_rng(seed)
    model = {kind: {t.name: _values(rng, t) for t in layout} for kind, (_, layout) in MODELS.items()}
    model["speakers"] = (0.3 * rng.standard_normal((speakers, 256))).astype(np.float16)
    return model


def write_test_model(directory: str, seed: int = 0, speakers: int = 4) -> str:
    """Write the four files of random_model(seed, speakers) into directory
    (created if needed). Returns the directory."""
    model = random_model(seed, speakers)
    os.makedirs(directory, exist_ok=True)
    for kind, (model_file, _) in MODELS.items():
        data = b"".join(v.astype("<f2").tobytes() for v in model[kind].values())
        assert len(data) == model_file.size, (model_file.file_name, len(data))
        write_atomically(os.path.join(directory, model_file.file_name), data)
    write_atomically(os.path.join(directory, SPEAKERS.file_name), model["speakers"].astype("<f2").tobytes())
    return directory
