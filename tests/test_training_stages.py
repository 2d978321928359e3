"""Training stages on a tiny corpus: each lowers its loss in a few steps,
resumes from its checkpoint, and writes files the engine loads; fine-tuning
adds a speaker row; corpus problems are refused with a clear message."""
import json
import os
import subprocess
import sys

import numpy as np
import pytest

torch = pytest.importorskip("torch")
pytest.importorskip("librosa")

from corvina_tools import Converter, ModelSet  # noqa: E402
from corvina_tools.model_files import PITCH  # noqa: E402
from corvina_tools.training.data import Corpus, CorpusError  # noqa: E402
from corvina_tools.training.stages import make_stage  # noqa: E402
from corvina_tools.training.trainer import train  # noqa: E402


def harmonic(f0, frames, rng):
    """Voiced frames at a steady pitch, a silent gap in the middle."""
    t = np.arange(frames * 160) / 16000
    x = sum(np.sin(2 * np.pi * h * f0 * t + rng.uniform(0, 6)) / h for h in range(1, 12) if h * f0 < 7000)
    voiced = np.ones(frames, bool)
    voiced[frames // 2 - 5:frames // 2 + 5] = False
    return (0.2 * x * np.repeat(voiced, 160)).astype(np.float32), voiced


def write_corpus(folder, speakers=(("low", 110.0), ("high", 220.0)), utterances=4, frames=400):
    import soxr
    rng = np.random.default_rng(0)
    for name, f0 in speakers:
        os.makedirs(folder / name)
        for i in range(utterances):
            audio16, voiced = harmonic(f0 * (1 + 0.05 * i), frames, rng)
            audio24 = soxr.resample(audio16, 16000, 24000)[:frames * 240].astype(np.float32)
            np.savez(folder / name / f"{i:05d}.npz", audio16=audio16, audio24=audio24,
                     f0=np.where(voiced, f0 * (1 + 0.05 * i), 0).astype(np.float32),
                     phones=voiced.astype(np.int16) + (i % 2), phone_sequence=np.array([1 + i % 2], np.int16),
                     text=np.array("a"))
    (folder / "corpus.json").write_text(json.dumps({
        "phones": ["pau", "aa", "iy"], "validation_sentences": [utterances - 1],
        "speakers": [{"name": n, "held_out": False} for n, _ in speakers]}))
    return folder


@pytest.fixture(scope="module")
def corpus(tmp_path_factory):
    return write_corpus(tmp_path_factory.mktemp("corpus"))


def fixed_loss(stage):
    with torch.no_grad():
        return stage.trainable(*stage.batch(np.random.default_rng(7)))[0].item()


@pytest.fixture(scope="module")
def model_dir(corpus, tmp_path_factory):
    """The three stages in order, each a few steps; every loss must fall and
    a second run must resume where the first stopped."""
    model, checkpoints = tmp_path_factory.mktemp("model"), tmp_path_factory.mktemp("checkpoints")
    torch.manual_seed(0)
    for kind, sizes in (("pitch", dict(batch=4, frames=60)), ("phone", dict(batch=4, frames=60)),
                        ("waveform", dict(batch=2, frames=40, phase_weight=1.0))):
        stage = make_stage(kind, corpus, model, **sizes)
        stage.learning_rate = 2e-3
        before = fixed_loss(stage)
        train(stage, checkpoints, steps=6, validate_every=3)
        assert fixed_loss(stage) < before, kind
        again = make_stage(kind, corpus, model, **sizes)
        log = []
        train(again, checkpoints, steps=7, validate_every=100, log=type("L", (), {"write": log.append,
                                                                                  "flush": lambda s: None})())
        assert any("resuming" in line and "step 6" in line for line in log), kind
    # Adversarial training resumes the generator's run; its critics are
    # checkpointed beside it and resumed too.
    for steps in (9, 10):
        train(make_stage("waveform", corpus, model, batch=2, frames=40, adversarial=True), checkpoints,
              steps=steps, validate_every=100)
        saved = torch.load(checkpoints / "waveform.pt", weights_only=False)
        assert saved["step"] == steps and saved["critic_optimiser"]["state"]
    return model


def test_trained_model_converts_through_the_engine(model_dir):
    models = ModelSet.load(model_dir)
    assert models.n_speakers == 2
    out = Converter(models, speaker=1).process(harmonic(150.0, 50, np.random.default_rng(1))[0])
    assert out.shape == (50 * 240,) and np.all(np.isfinite(out))


def test_fine_tune_adds_a_voice(model_dir, tmp_path):
    new = write_corpus(tmp_path / "new", speakers=(("mine", 180.0),), utterances=8)
    out = tmp_path / "tuned"
    stage = make_stage("finetune", new, model_dir, batch=2, frames=40, out_dir=str(out))
    before = stage.trainable.table.detach().clone()
    train(stage, tmp_path / "checkpoints", steps=3, validate_every=100)
    after = stage.trainable.table.detach()
    assert torch.equal(after[:2], before[:2]) and not torch.equal(after[2], before[2])
    assert json.loads((out / "speakers.json").read_text())[-1] == "mine"
    assert (out / "speaker_embeddings.bin").stat().st_size == 3 * 512


def test_corpus_problems_are_refused(corpus, tmp_path):
    with pytest.raises(CorpusError, match="at least 600 s"):
        Corpus(corpus, min_seconds=600)
    with pytest.raises(CorpusError, match="no speaker"):
        Corpus(corpus, ["nobody"])
    with pytest.raises(CorpusError, match="corpus.json"):
        Corpus(tmp_path)
    done = subprocess.run([sys.executable, "-m", "corvina_tools.cli", "train", "pitch", str(tmp_path), "-m",
                           str(tmp_path / "m"), "--checkpoints", str(tmp_path / "c"), "--steps", "1"],
                          capture_output=True, text=True)
    assert done.returncode != 0 and "corpus.json" in done.stderr and "Traceback" not in done.stderr


def test_two_process_data_parallel(corpus, tmp_path):
    """torchrun with two CPU processes on gloo: both step together and one
    checkpoint is written."""
    done = subprocess.run([sys.executable, "-m", "torch.distributed.run", "--nproc-per-node", "2", "--standalone",
                           "-m", "corvina_tools.cli", "train", "pitch", str(corpus), "-m", str(tmp_path / "m"),
                           "--checkpoints", str(tmp_path / "c"), "--steps", "2", "--batch", "2", "--frames", "40",
                           "--threads", "1"], capture_output=True, text=True, timeout=300)
    assert done.returncode == 0, done.stderr[-2000:]
    assert torch.load(tmp_path / "c" / "pitch.pt", weights_only=False)["step"] == 2
    assert (tmp_path / "m" / PITCH.file_name).stat().st_size == PITCH.size
