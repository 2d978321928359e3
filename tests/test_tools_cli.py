"""The `corvina` command end to end: convert on generated files in several
formats and rates, bad inputs and bad models, info, make-test-model, demo."""
import os

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


