"""The `corvina` command end to end: convert on generated files in several
formats and rates, bad inputs and bad models, info, make-test-model, bench,
demo; and as a new user meets it: signals, unwritable outputs, warnings,
pipes, and the argument checks."""
import contextlib
import io
import os
import signal
import subprocess
import time

import numpy as np
import pytest
import soundfile as sf

from corvina_tools import cli, convert_files
from corvina_tools.speech import speech_like

INPUTS = [("talk.wav", 16000, 1, "PCM_16"), ("stereo.flac", 44100, 2, "PCM_24"), ("low.ogg", 22050, 1, "VORBIS")]


@pytest.fixture(scope="module")
def inputs(tmp_path_factory):
    folder = tmp_path_factory.mktemp("inputs")
    paths = []
    for name, rate, channels, subtype in INPUTS:
        x = np.stack([speech_like(0.7, rate, seed=c) for c in range(channels)], axis=1)
        sf.write(folder / name, x, rate, subtype=subtype)
        paths.append(str(folder / name))
    return paths


def test_convert_formats_and_rates_to_a_folder_and_a_file(model_dir, inputs, tmp_path, capsys):
    status = cli.main(["convert", *inputs, "-m", model_dir, "-o", str(tmp_path / "out"), "-r", "48000",
                       "-s", "0:1,1:2", "-p", "-3"])
    assert status == 0
    summary = capsys.readouterr().out
    assert "converted 3 of 3 file(s): 2.10 s of audio" in summary and "real-time factor" in summary
    for source in inputs:
        target = tmp_path / "out" / (os.path.splitext(os.path.basename(source))[0] + ".wav")
        y, rate = sf.read(target)
        assert rate == 48000 and abs(len(y) - sf.info(source).duration * 48000) <= 2
        assert np.isfinite(y).all() and y.std() > 1e-3
    assert sorted(os.listdir(tmp_path / "out")) == ["low.wav", "stereo.wav", "talk.wav"]
    # One file: the format comes from the extension.
    one = str(tmp_path / "one.flac")
    assert cli.main(["convert", inputs[0], "-m", model_dir, "-o", one, "--subtype", "PCM_24"]) == 0
    info = sf.info(one)
    assert (info.format, info.subtype, info.samplerate, info.frames) == ("FLAC", "PCM_24", 24000, 16800)


def test_bad_inputs_fail_alone_and_leave_nothing(model_dir, inputs, tmp_path, capsys):
    broken = tmp_path / "broken.wav"
    broken.write_bytes(b"RIFF" + b"\x07" * 200)
    status = cli.main(["convert", inputs[0], str(broken), str(tmp_path / "absent.wav"), "-m", model_dir,
                       "-o", str(tmp_path / "out")])
    captured = capsys.readouterr()
    assert status == 1
    assert f"cannot read {broken}" in captured.err and "absent.wav: no such file" in captured.err
    # Failures counted; no real-time factor for under a second of audio (start-up would dominate it).
    assert captured.out.startswith("converted 1 of 3 file(s), 2 failed: 0.70 s of audio in ")
    assert "real-time factor" not in captured.out
    assert os.listdir(tmp_path / "out") == ["talk.wav"]


def test_failure_mid_file_leaves_no_partial_output(model_dir, inputs, tmp_path, monkeypatch, capsys):
    target = tmp_path / "kept.wav"
    target.write_bytes(b"earlier result")

    class FailingConverter(convert_files.Converter):
        def process(self, block):
            raise OSError("disk on fire")

    monkeypatch.setattr(convert_files, "Converter", FailingConverter)
    assert cli.main(["convert", inputs[1], "-m", model_dir, "-o", str(target)]) == 1
    assert os.listdir(tmp_path) == ["kept.wav"] and target.read_bytes() == b"earlier result"
    assert capsys.readouterr().out == "converted 0 of 1 file(s), 1 failed\n"


def test_info_make_test_model_and_a_bad_model(inputs, tmp_path, corvina_command):
    result = corvina_command("make-test-model", tmp_path / "m", "--seed", "3", "--speakers", "2")
    assert result.returncode == 0 and "untrained" in result.stdout
    result = corvina_command("info", tmp_path / "m")
    assert result.returncode == 0 and "2 speaker(s)" in result.stdout and "complete model set" in result.stdout
    assert "engine: kernel set avx" in result.stdout
    os.truncate(tmp_path / "m" / "phone_extractor.bin", 10)
    result = corvina_command("info", tmp_path / "m")
    assert result.returncode == 1 and "found 10 bytes" in result.stdout
    result = corvina_command("convert", inputs[0], "-m", tmp_path / "m", "-o", tmp_path / "out.wav")
    assert result.returncode == 1 and result.stderr.startswith("corvina: bad model: ") and "found 10" in result.stderr
    assert not (tmp_path / "out.wav").exists()


def test_bench_reports_every_model(model_dir, capsys):
    assert cli.main(["bench", "-m", model_dir, "-n", "20"]) == 0
    out = capsys.readouterr().out
    assert all(label in out for label in ("phone extractor", "pitch estimator", "waveform generator",
                                          "chain", "real-time factor", "streams per core", "kernel set avx"))


def test_demo_converts_into_every_voice(model_dir, tmp_path):
    from corvina_tools import demo
    lines = []
    demo.run_demo(str(tmp_path), model_dir, report=lines.append)
    x, rate = sf.read(tmp_path / "input.wav")
    outputs = sorted(f for f in os.listdir(tmp_path) if f.startswith("speaker"))
    assert rate == 16000 and outputs == ["speaker0_row-0.wav", "speaker0_row-0_up4.wav", "speaker1_row-1.wav",
                                         "speaker2_row-2.wav"]
    for name in outputs:
        y, rate = sf.read(tmp_path / name)
        assert rate == 24000 and len(y) == len(x) * 3 // 2 and np.isfinite(y).all() and y.std() > 1e-3
    assert (tmp_path / "spectrograms.png").read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"
    assert any("real-time factor" in line for line in lines)


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
