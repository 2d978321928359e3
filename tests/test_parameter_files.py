"""Parameter files: a file of the exact size is read, whatever its bits;
any other ends the process with exactly one of the three diagnostics on
stderr and SIGABRT, nothing on stdout. Each case runs in an interpreter of
its own, since a bad file ends the process."""
import os
import signal
import subprocess
import sys

import numpy as np
import pytest

import corvina
from signals import SEED

FILES = {  # type name -> file name in a model directory, size (the C header's)
    "PhoneExtractor": ("phone_extractor.bin", corvina._PHONE_EXTRACTOR_PARAMETER_BYTES),
    "PitchEstimator": ("pitch_estimator.bin", corvina._PITCH_ESTIMATOR_PARAMETER_BYTES),
    "WaveformGenerator": ("waveform_generator.bin", corvina._WAVEFORM_GENERATOR_PARAMETER_BYTES),
}
SMALL, LARGE = "Too small file.", "Too large file."


def read_in_subprocess(model, path):
    code = (f"import corvina, sys; m = corvina.{model}(); m.read_parameters(sys.argv[1]); "
            "c = m.new_context(1); print('read')")
    return subprocess.run([sys.executable, "-c", code, path], capture_output=True, text=True, timeout=120)


def cases(model, real, folder, rng):
    """(path, expected stderr lines or None for success, what)."""
    size = len(real)
    made = [(bytes(size), None, "zeros"), (rng.bytes(size), None, "random bits"), (b"", SMALL, "empty"),
            (rng.bytes(int(rng.integers(1, size))), SMALL, "random short"), (real[:-1], SMALL, "one byte short"),
            (real + b"\0", LARGE, "one byte over"),
            (real + rng.bytes(int(rng.integers(2, 1 << 16))), LARGE, "extended")]
    out = []
    for k, (data, expected, what) in enumerate(made):
        path = os.path.join(folder, f"{model}_{k}.bin")
        with open(path, "wb") as f:
            f.write(data)
        out.append((path, expected and (expected,), what))
    missing = os.path.join(folder, "missing.bin")
    return out + [(missing, (f"Cannot open file {missing}.",), "no file"), (folder, (SMALL, LARGE), "a directory")]


@pytest.mark.parametrize("model", sorted(FILES))
def test_reader_reads_or_aborts_with_one_diagnostic(model_dir, tmp_path, model):
    name, size = FILES[model]
    with open(os.path.join(model_dir, name), "rb") as f:
        real = f.read()
    assert len(real) == size
    for path, expected, what in cases(model, real, str(tmp_path), np.random.default_rng(SEED)):
        result = read_in_subprocess(model, path)
        where = f"{model}, {what} (seed {SEED}): exit {result.returncode}, stderr {result.stderr!r}"
        if expected is None:
            assert (result.returncode, result.stdout, result.stderr) == (0, "read\n", ""), where
            continue
        assert (result.returncode, result.stdout) == (-signal.SIGABRT, ""), where
        lines = result.stderr.splitlines()
        assert len(lines) == 1 and result.stderr.endswith("\n") and lines[0] in expected, where
