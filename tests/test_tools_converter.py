"""The streaming converter: frame cutting and resampling, block-size
independence, settings mid-stream, latency, non-finite input."""
import types

import numpy as np
import pytest
import soxr

from corvina_tools import Converter
from corvina_tools.speech import speech_like
from signals import SEED, StretchChain

FAKE_MODELS = types.SimpleNamespace(speakers=np.eye(3, 256, dtype=np.float32))


def convert_in_blocks(converter, x, sizes):
    out, start = [], 0
    for size in sizes:
        out.append(converter.process(x[start:start + size]))
        start += size
    out.append(converter.process(x[start:]))
    return np.concatenate(out + [converter.flush()])


def random_sizes(rng, total, largest):
    sizes = []
    while sum(sizes) < total:
        sizes.append(int(rng.integers(0, largest)))
    return sizes


@pytest.mark.parametrize("in_rate,out_rate", [(16000, 24000), (44100, 48000), (8000, 22050)])
def test_frames_and_output_match_offline_resampling(in_rate, out_rate):
    stereo = np.stack([speech_like(0.8, in_rate, seed=1), speech_like(0.8, in_rate, seed=2)], axis=1)
    chain = StretchChain()
    converter = Converter(FAKE_MODELS, in_rate, out_rate, chain=chain)
    out = convert_in_blocks(converter, stereo, [333] * 7)

    model_in = soxr.resample(stereo.mean(axis=1), in_rate, 16000)
    frames = np.concatenate(chain.frames)
    assert len(frames) == -(-len(model_in) // 160) * 160          # last frame completed with silence
    np.testing.assert_allclose(frames[:len(model_in)], model_in, atol=1e-5)
    assert not frames[len(model_in):].any()

    model_out = np.concatenate([np.interp(np.arange(240) * 160 / 240, np.arange(160), f) for f in chain.frames])
    model_out = model_out[:len(model_in) * 240 // 160].astype(np.float32)
    np.testing.assert_allclose(out, soxr.resample(model_out, 24000, out_rate), atol=1e-5)
    assert abs(len(out) - len(stereo) * out_rate / in_rate) <= 2


def test_any_block_sizes_give_the_same_output(models):
    rng = np.random.default_rng(SEED)
    x = speech_like(1.0, 44100, seed=3)
    whole = convert_in_blocks(Converter(models, 44100, 48000), x, [])
    converter = Converter(models, 44100, 48000)
    pieces = convert_in_blocks(converter, x, random_sizes(rng, len(x) * 0.8, 900))
    assert np.isfinite(whole).all() and whole.std() > 1e-3
    np.testing.assert_array_equal(pieces, whole, err_msg=f"seed {SEED}")
    converter.reset()
    np.testing.assert_array_equal(convert_in_blocks(converter, x, [4410] * 5), whole, err_msg="after reset")


def engine_by_hand(models, x, switch_frame, mixed_row, shift_bins):
    """Frame by frame through the engine: speaker 0 and no shift before
    switch_frame; mixed_row and shifted, clipped bins from then on."""
    pc, tc, wc = models.phone.new_context(1), models.pitch.new_context(1), models.waveform.new_context(1)
    out = []
    for k, frame in enumerate(x.reshape(-1, 160)):
        features = models.phone(frame, pc)
        bins, pitch_features = models.pitch(frame, tc)
        row = models.speakers[:1]
        if k >= switch_frame:
            bins, row = np.clip(bins + shift_bins, 1, 383).astype(np.int32), mixed_row
        out.append(models.waveform(features, bins, pitch_features, row, wc))
    return np.concatenate(out)


@pytest.mark.parametrize("semitones,bins", [(2.5, 20), (-47.75, -382), (47.75, 382)])
def test_settings_take_effect_at_the_next_frame(models, semitones, bins):
    x = speech_like(0.6, 16000, seed=4)                # 60 frames, no resampling either side
    converter = Converter(models, speaker=0)
    first = converter.process(x[:3000])                # 18 whole frames, 120 samples pending
    converter.speaker = {1: 1.0, 2: 3.0}
    converter.pitch_shift = semitones
    rest = np.concatenate([converter.process(x[3000:]), converter.flush()])
    mixed = (0.25 * models.speakers[1] + 0.75 * models.speakers[2]).reshape(1, 256).astype(np.float32)
    expected = engine_by_hand(models, x, 18, mixed, bins)
    np.testing.assert_allclose(np.concatenate([first, rest]), expected, rtol=0, atol=1e-6)
    unchanged = engine_by_hand(models, x, 60, None, 0)
    assert not np.allclose(expected[18 * 240:], unchanged[18 * 240:], atol=1e-3)


def test_bad_settings_are_refused():
    converter = Converter(FAKE_MODELS, chain=StretchChain())
    for bad in (3, -1, {0: 1.0, 5: 1.0}, [1.0, 2.0], {0: -1.0, 1: 2.0}, {0: 0.0}, {0: float("nan")}):
        with pytest.raises(ValueError):
            converter.speaker = bad
    for bad in (float("inf"), float("nan"), 47.76, -1e17):
        with pytest.raises(ValueError, match="from -47.75 to 47.75"):
            converter.pitch_shift = bad
    for bad in (1.0, "1", True, None, {"0": 1.0}):
        with pytest.raises(TypeError, match="a row index .int., a {row: weight} dict or a sequence"):
            converter.speaker = bad


@pytest.mark.parametrize("in_rate,out_rate", [(16000, 24000), (44100, 48000), (48000, 16000)])
def test_latency_bounds_what_the_converter_holds_back(in_rate, out_rate):
    """Fed a few samples at a time, the output owed (input so far at the
    output rate minus output so far) never exceeds the latency figure and
    comes close to it."""
    converter = Converter(FAKE_MODELS, in_rate, out_rate, chain=StretchChain())
    latency = converter.latency
    assert latency.seconds == pytest.approx(latency.samples / out_rate)
    pushed = emitted = worst = 0
    block = np.zeros(7, np.float32)
    for _ in range(in_rate // 2 // len(block)):
        pushed += len(block)
        emitted += len(converter.process(block))
        worst = max(worst, pushed * out_rate / in_rate - emitted)
    assert 0.75 * latency.samples <= worst <= latency.samples + 1e-6
    if in_rate == 16000 and out_rate == 24000:
        assert latency.samples == 240                   # one frame, nothing else


def test_non_finite_input_is_silenced_and_counted_and_reset_recovers(models):
    """NaN and inf samples are silenced before the models; a finite but absurd
    level still overflows inside them and poisons the stream until reset()."""
    x = speech_like(0.5, 16000, seed=6)
    poisoned = x.copy()
    poisoned[[100, 2000, 2001, 5000]] = [np.nan, np.inf, -np.inf, np.nan]
    clean = x.copy()
    clean[[100, 2000, 2001, 5000]] = 0.0
    converter = Converter(models)
    converter.process(np.full(1600, 3e38, np.float32))
    assert np.isnan(converter.process(clean)).any()
    converter.reset()
    out = convert_in_blocks(converter, poisoned, [1000] * 7)
    assert converter.nonfinite_samples == 4 and np.isfinite(out).all()
    np.testing.assert_array_equal(out, convert_in_blocks(Converter(models), clean, []))
    converter.reset()
    assert converter.nonfinite_samples == 0


def test_integer_pcm_is_scaled_before_the_downmix():
    chain = StretchChain()
    Converter(FAKE_MODELS, chain=chain).process(np.array([[16384, -16384], [8192, 8192]] * 80, np.int16))
    np.testing.assert_array_equal(chain.frames[0], np.tile([0.0, 0.25], 80))
