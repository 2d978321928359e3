"""Recovery from bad input and bad files. A non-finite value that reaches the
networks stays in a stream's history; a fresh context (engine) or reset()
(host package) starts the stream clean, and other streams on the same models
never see it. A model set with a bad file is refused naming that file, and
what was checked is what the engine reads."""
import os

import numpy as np
import pytest

from corvina_tools import Converter, ModelError, ModelSet, model_set, write_test_model
from signals import frames, speech_like

SEED = 17


@pytest.fixture(scope="module")
def model_dir(tmp_path_factory):
    return write_test_model(str(tmp_path_factory.mktemp("recovery")), seed=SEED, speakers=2)


@pytest.fixture(scope="module")
def models(model_dir):
    return ModelSet.load(model_dir)


class Stream:
    """One stream through the three models, frame by frame."""

    def __init__(self, models):
        self.m = models
        self.contexts = [models.phone.new_context(1), models.pitch.new_context(1), models.waveform.new_context(1)]

    def __call__(self, x):
        features = self.m.phone(x, self.contexts[0])
        bins, pitch_features = self.m.pitch(x, self.contexts[1])
        return self.m.waveform(features, bins, pitch_features, self.m.speakers[:1], self.contexts[2])


def test_nan_poisons_only_its_own_stream_and_fresh_contexts_recover(models):
    rows = frames(speech_like(60, seed=SEED))
    reference = Stream(models)
    clean = [reference(x) for x in rows]

    poisoned, bystander = Stream(models), Stream(models)
    out, beside = [], []
    for k, x in enumerate(rows):
        out.append(poisoned(np.full(160, np.nan, np.float32) if k == 10 else x))
        beside.append(bystander(x))
    assert np.isfinite(np.concatenate(out[:10])).all()
    assert np.isnan(out[10]).any() and np.isnan(out[-1]).any(), "the NaN should stay in the history"
    np.testing.assert_array_equal(np.concatenate(beside), np.concatenate(clean), err_msg="another stream was touched")

    poisoned = Stream(models)  # fresh contexts on the same models
    np.testing.assert_array_equal(np.concatenate([poisoned(x) for x in rows]), np.concatenate(clean))


def test_converter_recovers_after_reset(models):
    """NaN and inf samples are silenced before the models; a finite but absurd
    level still overflows inside them and poisons the stream until reset()."""
    x = speech_like(50, seed=SEED)
    fresh = Converter(models).process(x)
    converter = Converter(models)
    nan_block = np.full(1600, np.nan, np.float32)
    assert np.isfinite(converter.process(nan_block)).all() and converter.nonfinite_samples == 1600

    converter.process(np.full(1600, 3e38, np.float32))
    assert np.isnan(converter.process(x)).any()
    converter.reset()
    assert converter.nonfinite_samples == 0
    np.testing.assert_array_equal(converter.process(x), fresh)


def test_one_bad_file_among_good_ones_is_named(model_dir, tmp_path):
    """Through links too: the error names the path that was given."""
    folder = tmp_path / "set"
    folder.mkdir()
    for name in os.listdir(model_dir):
        os.symlink(os.path.join(model_dir, name), folder / name)
    short = tmp_path / "short.bin"
    short.write_bytes(b"\0" * 1000)
    os.replace(folder / "pitch_estimator.bin", tmp_path / "unused")
    os.symlink(short, folder / "pitch_estimator.bin")
    with pytest.raises(ModelError) as caught:
        ModelSet.load(folder)
    assert caught.value.path == str(folder / "pitch_estimator.bin") and caught.value.found == "1000 bytes"

    os.unlink(folder / "pitch_estimator.bin")
    os.symlink(tmp_path / "nowhere.bin", folder / "pitch_estimator.bin")  # dangling
    with pytest.raises(ModelError) as caught:
        ModelSet.load(folder)
    assert caught.value.path == str(folder / "pitch_estimator.bin") and caught.value.found == "no such file"

    os.unlink(folder / "pitch_estimator.bin")
    os.symlink(folder / "pitch_estimator.bin", folder / "pitch_estimator.bin")  # a loop
    with pytest.raises(ModelError, match="pitch_estimator.bin"):
        ModelSet.load(folder)


def test_the_checked_file_is_the_one_read(model_dir, tmp_path, monkeypatch):
    """A file replaced under its name after the check would make the engine
    abort; the engine is handed the checked, still open file instead."""
    folder = tmp_path / "set"
    folder.mkdir()
    for name in os.listdir(model_dir):
        os.link(os.path.join(model_dir, name), folder / name)
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
    monkeypatch.undo()
    original = ModelSet.load(model_dir)
    x = frames(speech_like(5, seed=SEED))
    a, b = Stream(swapped), Stream(original)
    np.testing.assert_array_equal(np.concatenate([a(r) for r in x]), np.concatenate([b(r) for r in x]))
