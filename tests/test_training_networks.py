"""The PyTorch networks against the engine: exported after a few training
steps, the engine's outputs agree with the PyTorch streaming step and the
whole-sequence forward; the whole-sequence forward equals the streaming
step; export and import are exact."""
import numpy as np
import pytest

torch = pytest.importorskip("torch")

from corvina_tools import ModelSet  # noqa: E402
from corvina_tools.training import (ExportError, PhoneExtractor, PitchEstimator, WaveformGenerator,  # noqa: E402
                                    load_parameters, save_parameters, write_model_directory)
from corvina_tools.speech import speech_like  # noqa: E402
from signals import Chain  # noqa: E402

FRAMES = 200


def trained_a_little(network, output):
    """A few optimiser steps away from the initialisation, so the export is
    of weights that training moved."""
    optimiser = torch.optim.AdamW(network.parameters(), lr=1e-3)
    for _ in range(3):
        loss = output(network).pow(2).mean()
        optimiser.zero_grad()
        loss.backward()
        optimiser.step()
    return network.eval()


@pytest.fixture(scope="module")
def exported(tmp_path_factory):
    """The three networks, trained a little, exported, and the engine's
    frame-by-frame outputs on the exported files."""
    folder = tmp_path_factory.mktemp("export")
    torch.manual_seed(3)
    x = speech_like(FRAMES / 100, seed=4)
    samples = torch.from_numpy(x)[None]
    batch = torch.from_numpy(np.stack([speech_like(0.3, seed=s) for s in (5, 6)]))
    phone = trained_a_little(PhoneExtractor(), lambda net: net(batch))
    pitch = trained_a_little(PitchEstimator(), lambda net: net.scores(batch)[0])
    speaker = torch.randn(1, 256) * 0.3
    short = (torch.randn(2, 8, 256), torch.randint(1, 384, (2, 8)), torch.randn(2, 8, 4), torch.randn(2, 256))
    generator = trained_a_little(WaveformGenerator(), lambda net: net(*short))
    write_model_directory(folder, phone, pitch, generator, speaker)
    for net, name in ((phone, "phone_extractor"), (pitch, "pitch_estimator"), (generator, "waveform_generator")):
        load_parameters(net, folder / f"{name}.bin")     # the half-precision weights the engine runs
    chain, out = Chain(ModelSet.load(folder)), {"phone": [], "bins": [], "pitch_features": [], "samples": []}
    for frame in x.reshape(FRAMES, 160):
        y = chain(frame)
        for key, value in zip(out, (*chain.last, y[None])):
            out[key].append(value)
    out = {k: np.concatenate(v) for k, v in out.items()}
    return dict(phone=phone, pitch=pitch, generator=generator, speaker=speaker, samples=samples,
                engine=out, folder=folder)


def streamed(call, *sequences):
    """Run a network frame by frame with one state; sequences are [1, T, ...]."""
    state = {}
    return [call(*(s[:, i] for s in sequences), state) for i in range(sequences[0].shape[1])]


def test_engine_agrees_with_pytorch(exported):
    e, samples = exported["engine"], exported["samples"]
    with torch.no_grad():
        phone = exported["phone"](samples)[0].numpy()
        phone_steps = np.concatenate([f.numpy() for f in streamed(exported["phone"].step, samples.view(1, FRAMES, 160))])
        bins, features = exported["pitch"](samples)
        bin_steps = np.array([b.item() for b, _ in streamed(exported["pitch"].step, samples.view(1, FRAMES, 160))])
        speaker = torch.from_numpy(exported["speaker"].numpy().astype(np.float16).astype(np.float32))
        upstream = [torch.from_numpy(e[k])[None] for k in ("phone", "bins", "pitch_features")]
        wave = exported["generator"](*upstream, speaker)[0].view(FRAMES, 240).numpy()
        wave_steps = np.concatenate([w.numpy() for w in streamed(
            lambda f, b, p, s: exported["generator"].step(f, b, p, speaker, s), *upstream)])
    # Whole sequence and frame by frame, same PyTorch weights: rounding only.
    np.testing.assert_allclose(phone_steps, phone, atol=1e-4)
    assert np.array_equal(bins[0].numpy(), bin_steps)
    assert np.sqrt(np.mean((wave_steps - wave) ** 2)) <= 1e-4 * np.sqrt(np.mean(wave ** 2))
    for ours in (phone, phone_steps):
        assert np.max(np.abs(ours - e["phone"])) < 2e-2
        assert np.sqrt(np.mean((ours - e["phone"]) ** 2)) < 2e-3
    for ours in (bins[0].numpy(), bin_steps):
        assert np.mean(ours == e["bins"]) >= 0.99
    np.testing.assert_allclose(features[0].numpy(), e["pitch_features"], atol=2e-3, rtol=1e-3)
    rms = np.sqrt(np.mean(e["samples"] ** 2, axis=1))
    for ours in (wave, wave_steps):
        assert np.all(np.sqrt(np.mean((ours - e["samples"]) ** 2, axis=1)) <= 1e-2 * rms)


@pytest.mark.parametrize("cls", [PhoneExtractor, PitchEstimator, WaveformGenerator])
def test_export_round_trip_and_wrong_sizes(cls, tmp_path):
    torch.manual_seed(0)
    a, b = cls(), cls()
    save_parameters(a, tmp_path / "a.bin")
    load_parameters(b, tmp_path / "a.bin")
    for (name, x, *_), (_, y, *_) in zip(a.file_tensors(), b.file_tensors()):
        assert torch.equal(x.detach().half().float(), y.detach()), name
    (tmp_path / "short.bin").write_bytes((tmp_path / "a.bin").read_bytes()[:-2])
    with pytest.raises(ValueError, match="short.bin"):
        load_parameters(b, tmp_path / "short.bin")
    with torch.no_grad():
        a.file_tensors()[-1][1].view(-1)[0] = float("nan")
    with pytest.raises(ExportError, match=a.file_tensors()[-1][0]):
        save_parameters(a, tmp_path / "nan.bin")
    assert not (tmp_path / "nan.bin").exists()
