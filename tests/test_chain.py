"""The three models chained from Python as a host runs them: 160 input
samples -> phone features and pitch -> 240 output samples, frame by frame."""
import numpy as np
import pytest

corvina = pytest.importorskip("corvina")
from reference import phone, pitch, waveform  # noqa: E402
from signals import frames, speech_like  # noqa: E402

N_FRAMES = 320
SEED = 21


@pytest.fixture(scope="module")
def models(tmp_path_factory):
    folder = tmp_path_factory.mktemp("chain")
    built = []
    for kind, reference, name in ((corvina.PhoneExtractor, phone, "phone.bin"),
                                  (corvina.PitchEstimator, pitch, "pitch.bin"),
                                  (corvina.WaveformGenerator, waveform, "generator.bin")):
        reference.write_parameters(reference.random_parameters(SEED), folder / name)
        model = kind()
        model.read_parameters(str(folder / name))
        built.append(model)
    speaker = (0.3 * np.random.default_rng(SEED).standard_normal((1, 256))).astype(np.float32)
    return (*built, speaker)


def convert(models, audio):
    """One stream through fresh contexts: (output samples, pitch bins)."""
    extractor, estimator, generator, speaker = models
    contexts = [m.new_context(1) for m in (extractor, estimator, generator)]
    out, bins = [], []
    for block in frames(audio):
        features = extractor(block, contexts[0])
        quantized_pitch, pitch_features = estimator(block, contexts[1])
        out.append(generator(features, quantized_pitch, pitch_features, speaker, contexts[2]))
        bins.append(int(quantized_pitch[0]))
    return np.concatenate(out), np.array(bins)


@pytest.fixture(scope="module")
def audio():
    return speech_like(N_FRAMES, seed=SEED)


@pytest.fixture(scope="module")
def converted(models, audio):
    return convert(models, audio)


def test_chain_output_is_finite_and_alive(converted):
    out, bins = converted
    assert out.shape == (N_FRAMES * 240,) and out.dtype == np.float32
    assert np.isfinite(out).all(), f"seed {SEED}"
    frame_rms = np.sqrt(np.mean(out.reshape(N_FRAMES, 240).astype(np.float64) ** 2, axis=1))
    assert frame_rms.min() > 0, f"seed {SEED}: a silent frame"
    assert ((0 <= bins) & (bins < 384)).all() and len(np.unique(bins)) > 1, f"seed {SEED}"


def test_chain_is_deterministic_across_contexts(models, audio, converted):
    again, bins = convert(models, audio)
    np.testing.assert_array_equal(again, converted[0], err_msg=f"seed {SEED}")
    np.testing.assert_array_equal(bins, converted[1])


def test_chain_is_causal(models, audio, converted):
    cut = 200
    changed = audio.copy()
    changed[cut * 160:] = np.random.default_rng(SEED).standard_normal(len(audio) - cut * 160) * 0.1
    out, _ = convert(models, changed)
    np.testing.assert_array_equal(out[: cut * 240], converted[0][: cut * 240], err_msg=f"seed {SEED}")
    assert np.abs(out[cut * 240:] - converted[0][cut * 240:]).max() > 1e-3, f"seed {SEED}"
