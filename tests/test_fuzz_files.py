"""Parameter and speaker files of random sizes and contents, and real files
cut short or extended. A parameter reader either reads the file or prints
exactly one of its three diagnostics and aborts: no other signal, no other
output. The speaker reader survives every file. Each parameter case runs in
an interpreter of its own, since a bad file ends the process."""
import os
import signal
import subprocess
import sys

import numpy as np
import pytest

import corvina
from corvina_tools import write_test_model

SEED = int(os.environ.get("CORVINA_TEST_SEED", "20261121"))
MODELS = {  # type name -> file name in a model directory
    "PhoneExtractor": "phone_extractor.bin",
    "PitchEstimator": "pitch_estimator.bin",
    "WaveformGenerator": "waveform_generator.bin",
}
DIAGNOSTICS = ("Too small file.", "Too large file.")


@pytest.fixture(scope="module")
def real_model(tmp_path_factory):
    return write_test_model(str(tmp_path_factory.mktemp("real")), seed=SEED % 1000, speakers=3)


def read_in_subprocess(model, path):
    code = (f"import corvina, sys; m = corvina.{model}(); m.read_parameters(sys.argv[1]); "
            "c = m.new_context(1); print('read')")
    return subprocess.run([sys.executable, "-c", code, path], capture_output=True, text=True, timeout=120)


def cases(real_model, folder, rng):
    """(model, path, expected stderr line or None for success, what) for
    random files, cut and extended real files, a directory and no file."""
    out = []
    for model, name in MODELS.items():
        real = open(os.path.join(real_model, name), "rb").read()
        size = len(real)
        made = []
        for k in range(2):  # random contents, random size below the exact one
            made.append((rng.bytes(int(rng.integers(0, size))), "Too small file.", "random short"))
        made.append((rng.bytes(size), None, "random exact"))  # any bits are valid half floats
        for cut in (int(rng.integers(1, size)), size - 1):
            made.append((real[:cut], "Too small file.", f"cut to {cut}"))
        for extra in (1, int(rng.integers(2, 1 << 16))):
            made.append((real + rng.bytes(extra), "Too large file.", f"{extra} bytes added"))
        for k, (data, expected, what) in enumerate(made):
            path = os.path.join(folder, f"{model}_{k}.bin")
            with open(path, "wb") as f:
                f.write(data)
            out.append((model, path, expected, what))
        missing = os.path.join(folder, f"{model}_missing.bin")
        out.append((model, missing, f"Cannot open file {missing}.", "no file"))
        out.append((model, folder, DIAGNOSTICS, "a directory"))
    return out


def test_parameter_readers_read_or_abort_with_one_diagnostic(real_model, tmp_path):
    rng = np.random.default_rng(SEED)
    for model, path, expected, what in cases(real_model, str(tmp_path), rng):
        result = read_in_subprocess(model, path)
        where = f"{model}, {what} (seed {SEED}): exit {result.returncode}, stderr {result.stderr!r}"
        if expected is None:
            assert (result.returncode, result.stdout, result.stderr) == (0, "read\n", ""), where
            continue
        assert result.returncode == -signal.SIGABRT, where
        assert result.stdout == "", where
        lines = result.stderr.splitlines()
        assert len(lines) == 1 and result.stderr.endswith("\n"), where
        assert lines[0] in (expected if isinstance(expected, tuple) else (expected,)), where


def test_speaker_reader_survives_every_file(real_model, tmp_path):
    """Random sizes and contents, and the real file cut or extended: whole
    files of 512-byte rows give their rows, anything else no rows."""
    rng = np.random.default_rng(SEED)
    real = open(os.path.join(real_model, "speaker_embeddings.bin"), "rb").read()
    files = [rng.bytes(int(n)) for n in rng.integers(0, 5000, 40)]
    files += [real[:n] for n in (0, 1, 511, 512, 1000, len(real) - 1)]
    files += [real + rng.bytes(n) for n in (1, 15, 16, 512, 513)]
    path = tmp_path / "speakers.bin"
    for data in files:
        path.write_bytes(data)
        rows = corvina.read_speaker_embeddings(path)
        if len(data) % 512:
            assert rows.shape == (0, 256), f"{len(data)} bytes (seed {SEED})"
        else:
            want = np.frombuffer(data, "<f2").astype(np.float32).reshape(-1, 256)
            assert rows.view(np.uint32).tobytes() == want.view(np.uint32).tobytes(), f"{len(data)} bytes"
    for special in ("/proc/self/status", "/dev/zero", "/dev/null"):
        assert corvina.read_speaker_embeddings(special).shape == (0, 256)
