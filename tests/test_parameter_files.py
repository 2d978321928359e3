"""Parameter files: exact size accepted; every bad file ends the process with
one line on stderr and SIGABRT. Each bad case runs in its own interpreter."""
import signal
import subprocess
import sys

import pytest

import corvina

SIZES = {
    "PhoneExtractor": 10847360,
    "PitchEstimator": 3434112,
    "WaveformGenerator": 11463360,
}


def read_in_subprocess(model, path):
    code = f"import corvina, sys; corvina.{model}().read_parameters(sys.argv[1]); print('read')"
    return subprocess.run([sys.executable, "-c", code, str(path)], capture_output=True, text=True, timeout=60)


@pytest.fixture(scope="module", params=sorted(SIZES))
def model(request):
    return request.param


def test_exact_size_is_read(model, tmp_path):
    path = tmp_path / "ok.bin"
    path.write_bytes(bytes(SIZES[model]))
    getattr(corvina, model)().read_parameters(path)  # returns, prints nothing


@pytest.mark.parametrize("delta, message", [(-1, "Too small file."), (+1, "Too large file."),
                                            (None, "Too small file.")])
def test_wrong_size_aborts(model, tmp_path, delta, message):
    path = tmp_path / "bad.bin"
    path.write_bytes(b"" if delta is None else bytes(SIZES[model] + delta))
    result = read_in_subprocess(model, path)
    assert result.returncode == -signal.SIGABRT
    assert result.stderr == message + "\n"
    assert "read" not in result.stdout


def test_missing_file_aborts_naming_it(model, tmp_path):
    path = tmp_path / "missing.bin"
    result = read_in_subprocess(model, path)
    assert result.returncode == -signal.SIGABRT
    assert result.stderr == f"Cannot open file {path}.\n"
