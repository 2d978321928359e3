"""The `corvina` command as a new user meets it: signals, unwritable outputs,
warnings, the closing line, pipes, and the argument checks."""
import contextlib
import io
import os
import signal
import subprocess
import time

import numpy as np
import pytest
import soundfile as sf

from corvina_tools import cli
from corvina_tools.speech import speech_like


@pytest.fixture(scope="module")
def talk(tmp_path_factory):
    path = tmp_path_factory.mktemp("talk") / "talk.wav"
    sf.write(path, speech_like(1.5, 22050), 22050, subtype="PCM_16")
    return path


@pytest.mark.parametrize("signum,status,message", [(signal.SIGTERM, 143, "stopped by SIGTERM"),
                                                   (signal.SIGHUP, 129, "stopped by SIGHUP"),
                                                   (signal.SIGINT, 130, "interrupted")])
def test_signals_stop_cleanly(model_dir, tmp_path, corvina_command, signum, status, message):
    long = tmp_path / "long.wav"
    sf.write(long, np.zeros(16000 * 60, np.float32), 16000)
    out = tmp_path / "out"
    process = subprocess.Popen([corvina_command.path, "convert", long, "-m", model_dir, "-o", out / "out.wav"],
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                               preexec_fn=lambda: signal.signal(signum, signal.SIG_DFL))   # not inherited SIG_IGN
    deadline = time.monotonic() + 120          # a safety net, not a measurement
    while not (out.exists() and os.listdir(out)):           # the partial file is being written
        assert process.poll() is None and time.monotonic() < deadline, process.communicate()
        time.sleep(0.02)
    process.send_signal(signum)
    _, err = process.communicate(timeout=120)
    assert (process.returncode, err.strip()) == (status, f"corvina: {message}")
    assert os.listdir(out) == []


@contextlib.contextmanager
def locked(path):
    """path made unwritable: marked immutable for root, whom modes do not stop."""
    if os.geteuid() == 0:
        if subprocess.run(["chattr", "+i", path], capture_output=True).returncode:
            pytest.skip("this file system cannot mark files immutable")
        try:
            yield
        finally:
            subprocess.run(["chattr", "-i", path], check=True)
    else:
        mode = os.stat(path).st_mode
        os.chmod(path, 0o555 if os.path.isdir(path) else 0o444)
        try:
            yield
        finally:
            os.chmod(path, mode)


@pytest.mark.parametrize("case,target,lock,message", [
    ("under a file", "a_file/new/out.wav", None, "a_file is a file, not a folder"),
    ("locked folder", "folder/out.wav", "folder", "no file can be made in its folder"),
    ("locked target", "folder/old.wav", "folder/old.wav", "it exists and cannot be replaced")])
def test_unwritable_outputs_are_refused_before_converting(model_dir, talk, tmp_path, corvina_command,
                                                          case, target, lock, message):
    (tmp_path / "a_file").write_text("not a folder")
    (tmp_path / "folder").mkdir()
    (tmp_path / "folder" / "old.wav").write_text("earlier result")
    with locked(tmp_path / lock) if lock else contextlib.nullcontext():
        result = corvina_command("convert", talk, "-m", model_dir, "-o", tmp_path / target)
    assert result.returncode == 1 and result.stdout == ""          # nothing was converted
    assert result.stderr.strip().startswith(f"corvina: cannot write {tmp_path / target}: ")
    assert message in result.stderr and "partial" not in result.stderr and "Errno" not in result.stderr
    assert sorted(os.listdir(tmp_path / "folder")) == ["old.wav"]
    assert (tmp_path / "folder" / "old.wav").read_text() == "earlier result"


def test_warnings_for_trouble_in_the_output(model_dir, talk, tmp_path, corvina_command):
    cut = tmp_path / "cut.wav"
    cut.write_bytes(talk.read_bytes()[:44 + 22050 * 2 // 3])   # a third of a second of the header's 1.5 s
    sf.write(tmp_path / "empty.wav", np.zeros(0), 16000)
    result = corvina_command("convert", talk, cut, tmp_path / "empty.wav", "-m", model_dir,
                             "-o", tmp_path / "out", "--subtype", "FLOAT")
    assert result.returncode == 0, result.stderr
    peak = np.abs(sf.read(tmp_path / "out" / "talk.wav")[0]).max()
    assert peak > 1                         # the untrained model overshoots; a float file keeps it
    assert f"{talk}: " in result.stderr and f"output samples beyond full scale (peak {peak:.2f})" in result.stderr
    assert f"{cut}: the input ends after 0.33 s of the 1.50 s its header declares" in result.stderr
    assert f"{tmp_path / 'empty.wav'}: no audio in the input" in result.stderr


def test_standard_input_to_standard_output(model_dir, talk, tmp_path, corvina_command):
    result = corvina_command("convert", "-", "-o", "-", "-f", "WAV", "-m", model_dir, input=talk.read_bytes())
    assert result.returncode == 0, result.stderr
    assert b"converted 1 of 1 file(s): 1.50 s of audio" in result.stderr
    piped, rate = sf.read(io.BytesIO(result.stdout), dtype="int16")
    assert corvina_command("convert", talk, "-m", model_dir, "-o", tmp_path / "file.wav").returncode == 0
    from_files, _ = sf.read(tmp_path / "file.wav", dtype="int16")
    assert rate == 24000 and len(piped) == 36000
    np.testing.assert_array_equal(piped, from_files)


@pytest.mark.parametrize("argv,message", [
    (["--version"], "corvina 0."),
    (["live", "--help"], "corvina live [-h] (-m MODEL | --list-devices)" if cli.MODEL_REQUIRED
     else "corvina live [-h] [-m MODEL | --list-devices]"),
    (["convert", "--help"], "mixed to one (mono)"),
    (["convert", "x.wav", "-o", "y.wav", "-m", "m", "-s", "0:1,2:1,0:1"], "speaker row 0 is given twice"),
    (["convert", "x.wav", "-o", "y.wav", "-m", "m", "-p", "1e17"], "from -47.75 to 47.75"),
    (["convert", "x.wav", "-o", "y.wav", "-m", "m", "-p", "-47.76"], "from -47.75 to 47.75"),
    (["convert", "x.wav", "-o", "y.wav", "-m", "m", "-p", "nan"], "from -47.75 to 47.75")])
def test_arguments(argv, message, capsys):
    with pytest.raises(SystemExit) as stop:
        cli.main(argv)
    out, err = capsys.readouterr()
    assert stop.value.code == (0 if argv[-1] in ("--version", "--help") else 2)
    assert message in " ".join((out + err).split())
