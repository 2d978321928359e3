"""Recovery from bad files: a model set with a bad file is refused naming
that file, and what was checked is what the engine reads. (Non-finite input
and its recovery: test_tools_converter.py.)"""
import os

import numpy as np
import pytest

from corvina_tools import ModelError, ModelSet, model_set
from corvina_tools.speech import speech_frames
from signals import Chain

SEED = 17


def linked_set(model_dir, folder, link):
    """A model set of links (made by `link`) to the files of model_dir."""
    folder.mkdir()
    for name in os.listdir(model_dir):
        link(os.path.join(model_dir, name), folder / name)
    return folder


def test_one_bad_file_among_good_ones_is_named(model_dir, tmp_path):
    """Through links too (to a short file, to nothing, to itself): the error
    names the path that was given."""
    folder = linked_set(model_dir, tmp_path / "set", os.symlink)
    link = folder / "pitch_estimator.bin"
    short = tmp_path / "short.bin"
    short.write_bytes(b"\0" * 1000)
    for target, found in ((short, "1000 bytes"), (tmp_path / "nowhere.bin", "no such file"), (link, None)):
        link.unlink()
        os.symlink(target, link)
        with pytest.raises(ModelError, match="pitch_estimator.bin") as caught:
            ModelSet.load(folder)
        assert caught.value.path == str(link) and found in (None, caught.value.found), target


def test_the_checked_file_is_the_one_read(models, model_dir, tmp_path, monkeypatch):
    """A file replaced under its name after the check would make the engine
    abort; the engine is handed the checked, still open file instead."""
    folder = linked_set(model_dir, tmp_path / "set", os.link)
    real_open_checked = model_set.open_checked

    def open_then_swap(path, model_file):
        fd = real_open_checked(path, model_file)
        if model_file.kind == "waveform":
            swap = str(path) + ".swap"
            with open(swap, "wb") as f:
                f.write(b"\0" * 10)  # would be "Too small file." and an abort
            os.replace(swap, path)
        return fd

    monkeypatch.setattr(model_set, "open_checked", open_then_swap)
    swapped = ModelSet.load(folder)
    assert os.path.getsize(folder / "waveform_generator.bin") == 10
    x = speech_frames(5, seed=SEED)
    a, b = Chain(swapped), Chain(models)
    np.testing.assert_array_equal(np.concatenate([a(r) for r in x]), np.concatenate([b(r) for r in x]))
