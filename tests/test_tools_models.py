"""Model sets: every loading error is a ModelError naming the path given,
before the engine sees the file, and the file checked is the file read;
`info` on single files."""
import os
import shutil

import numpy as np
import pytest

import corvina
from corvina_tools import ModelError, ModelSet, model_set
from corvina_tools.info import describe
from corvina_tools.speech import speech_frames
from signals import Chain

SIZES = {"phone_extractor.bin": corvina._PHONE_EXTRACTOR_PARAMETER_BYTES,
         "pitch_estimator.bin": corvina._PITCH_ESTIMATOR_PARAMETER_BYTES,
         "waveform_generator.bin": corvina._WAVEFORM_GENERATOR_PARAMETER_BYTES}


@pytest.fixture
def model_copy(model_dir, tmp_path):
    return shutil.copytree(model_dir, tmp_path / "model")


BREAKS = {"missing": lambda p: p.unlink(), "short": lambda p: os.truncate(p, p.stat().st_size - 1),
          "long": lambda p: os.truncate(p, p.stat().st_size + 1), "empty": lambda p: os.truncate(p, 0),
          "odd speakers": lambda p: os.truncate(p, 1000), "directory": lambda p: (p.unlink(), p.mkdir()),
          "fifo": lambda p: (p.unlink(), os.mkfifo(p)), "NaN": lambda p: p.write_bytes(b"\xff" * p.stat().st_size),
          "link to a short file": lambda p: (p.unlink(), (p.parent / "x.bin").write_bytes(bytes(1000)),
                                             p.symlink_to(p.parent / "x.bin")),
          "dangling link": lambda p: (p.unlink(), p.symlink_to(p.parent / "x.bin")),
          "link loop": lambda p: (p.unlink(), p.symlink_to(p))}
CASES = ([(name, how) for name in SIZES for how in ("missing", "short", "long", "directory")]
         + [("speaker_embeddings.bin", how) for how in ("missing", "empty", "odd speakers", "fifo")]
         + [("pitch_estimator.bin", how) for how in ("fifo", "link to a short file", "dangling link", "link loop")]
         + [("waveform_generator.bin", "NaN"), ("speaker_embeddings.bin", "NaN")])


@pytest.mark.parametrize("name,how", CASES)
def test_every_bad_file_is_a_model_error_naming_it(model_copy, name, how):
    path = model_copy / name
    BREAKS[how](path)
    with pytest.raises(ModelError) as caught:
        ModelSet.load(model_copy)
    error = caught.value
    assert error.path == str(path)
    expected = f"exactly {SIZES[name]} bytes" if name in SIZES else "a non-zero multiple of 512 bytes"
    if how == "NaN":
        expected = "finite values only"
    assert expected in error.expected
    found = {"missing": "no such file", "short": f"{SIZES.get(name, 0) - 1} bytes",
             "long": f"{SIZES.get(name, 0) + 1} bytes", "empty": "0 bytes", "odd speakers": "1000 bytes",
             "directory": "a directory", "fifo": "not a regular file",
             "NaN": f"{SIZES.get(name, 1536) // 2} non-finite values", "link to a short file": "1000 bytes",
             "dangling link": "no such file",
             "link loop": "a file that cannot be opened (Too many levels of symbolic links)"}[how]
    assert error.found == found
    assert str(path) in str(error) and expected in str(error)
    lines, ok = describe(str(model_copy))
    assert not ok and any(name in line and "BAD" in line for line in lines)


@pytest.mark.skipif(os.geteuid() == 0, reason="root reads files whatever their mode")
def test_unreadable_file(model_copy):
    os.chmod(model_copy / "waveform_generator.bin", 0)
    with pytest.raises(ModelError, match="cannot be opened"):
        ModelSet.load(model_copy)


def test_not_a_model_directory(model_dir, tmp_path):
    with pytest.raises(ModelError, match="no such directory"):
        ModelSet.load(tmp_path / "absent")
    with pytest.raises(ModelError, match="not a directory"):
        ModelSet.load(os.path.join(model_dir, "pitch_estimator.bin"))


def test_info_recognises_single_files_by_size_and_flags_bad_values(model_copy, tmp_path):
    renamed = tmp_path / "voices.bin"
    os.rename(model_copy / "speaker_embeddings.bin", renamed)
    lines, ok = describe(str(renamed))
    assert ok and "speaker embeddings, 1536 bytes, 3 speaker(s)" in lines[1]
    (tmp_path / "odd.bin").write_bytes(b"\0" * 777)
    lines, ok = describe(str(tmp_path / "odd.bin"))
    assert not ok and "777 bytes" in lines[0]
    with open(model_copy / "pitch_estimator.bin", "r+b") as f:
        f.seek(1000)
        f.write(np.array([np.nan, np.inf], "<f2").tobytes())
    lines, ok = describe(str(model_copy / "pitch_estimator.bin"))
    assert not ok and "2 non-finite values" in lines[1]


def test_the_checked_file_is_the_one_read(models, model_copy, monkeypatch):
    """A file replaced under its name after the check would make the engine
    abort; the engine is handed the checked, still open file instead."""
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
    swapped = ModelSet.load(model_copy)
    assert os.path.getsize(model_copy / "waveform_generator.bin") == 10
    x = speech_frames(5, seed=17)
    a, b = Chain(swapped), Chain(models)
    np.testing.assert_array_equal(np.concatenate([a(r) for r in x]), np.concatenate([b(r) for r in x]))
