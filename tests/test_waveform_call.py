"""WaveformGenerator.__call__: argument parsing, conversions, checks and their
messages, and the stream behaviour seen from Python."""
import numpy as np
import pytest

corvina = pytest.importorskip("corvina")
from reference import waveform  # noqa: E402

SEED = 11


@pytest.fixture(scope="module")
def generator(tmp_path_factory):
    path = tmp_path_factory.mktemp("waveform_call") / "generator.bin"
    waveform.write_parameters(waveform.random_parameters(SEED), path)
    model = corvina.WaveformGenerator()
    model.read_parameters(str(path))
    return model


def frame_inputs(n_frames, seed=0):
    """Per-frame rows: phone (1, 256), pitch bin (1,), pitch features (1, 4), speaker (1, 256)."""
    rng = np.random.default_rng(seed)
    return [
        (rng.standard_normal((1, 256)).astype(np.float32),
         rng.integers(0, 384, 1).astype(np.int32),
         rng.standard_normal((1, 4)).astype(np.float32),
         (0.3 * rng.standard_normal((1, 256))).astype(np.float32))
        for _ in range(n_frames)
    ]


def run(generator, frames, context=None):
    context = context or generator.new_context(1)
    return np.stack([generator(*frame, context) for frame in frames])


def test_a_frame_gives_240_float32_samples(generator):
    (phone, pitch, features, speaker), = frame_inputs(1)
    out = generator(phone=phone, quantized_pitch=pitch, pitch_features=features,
                    speaker_embeddings=speaker, context=generator.new_context(1))
    assert out.shape == (240,) and out.dtype == np.float32 and np.isfinite(out).all()
    assert np.abs(out).max() > 0


GOOD = frame_inputs(1)[0]


@pytest.mark.parametrize("position, value, message", [
    (0, np.zeros((2, 256)), "len(phone) != length"),
    (0, np.zeros((1, 255)), "phone.shape[1] != PHONE_CHANNELS"),
    (1, np.zeros(2, np.int32), "len(quantized_pitch) != length"),
    (2, np.zeros((0, 4)), "len(pitch_features) != length"),
    (2, np.zeros((1, 3)), "pitch_features.shape[1] != 4"),
    (3, np.zeros((2, 256)), "len(speaker_embeddings) != length"),
    (3, np.zeros((1, 257)), "speaker_embeddings.shape[1] != WAVEFORM_GENERATOR_HIDDEN_CHANNELS"),
    (1, np.array([384]), "quantized_pitch not in range(PITCH_BINS)"),
    (1, np.array([-1]), "quantized_pitch not in range(PITCH_BINS)"),
])
def test_rejected_frames_leave_the_stream_untouched(generator, position, value, message):
    context = generator.new_context(1)
    args = list(GOOD)
    args[position] = value
    with pytest.raises(ValueError) as error:
        generator(*args, context)
    assert str(error.value) == message
    # Nothing ran: the context still gives a fresh stream's first frame.
    np.testing.assert_array_equal(generator(*GOOD, context), generator(*GOOD, generator.new_context(1)))


def test_shape_checks_come_in_order_and_before_the_range_check(generator):
    context = generator.new_context(1)
    phone, _, _, speaker = GOOD
    with pytest.raises(ValueError, match=r"^len\(phone\) != length$"):
        generator(np.zeros((2, 255)), [400], np.zeros((1, 3)), speaker, context)
    with pytest.raises(ValueError, match=r"^pitch_features\.shape\[1\] != 4$"):
        generator(phone, [400], np.zeros((1, 3)), np.zeros((2, 256)), context)
    for bin_ in (0, 383):
        assert generator(phone, [bin_], GOOD[2], speaker, context).shape == (240,)


class Refuses:
    """An argument whose conversion fails with its own name."""

    def __init__(self, name):
        self.name = name

    def __array__(self, *args, **kwargs):
        raise LookupError(self.name)


def test_conversions_run_in_order_before_any_check(generator):
    context = generator.new_context(1)
    phone, pitch, features, speaker = GOOD
    names = ("phone", "quantized_pitch", "pitch_features", "speaker_embeddings")
    for first in range(4):
        args = [phone, pitch, features, speaker][:first] + [Refuses(n) for n in names[first:]]
        with pytest.raises(LookupError, match=names[first]):
            generator(*args, context)
    # A shape that would fail its check does not get there before a later conversion fails.
    with pytest.raises(LookupError, match="speaker_embeddings"):
        generator(np.zeros((2, 256)), pitch, features, Refuses("speaker_embeddings"), context)


@pytest.mark.parametrize("position, value", [
    (0, np.zeros(256)),            # phone must have two dimensions
    (1, np.zeros((1, 1))),         # quantized_pitch exactly one
    (2, np.zeros(4)),
    (3, np.zeros((1, 1, 256))),
    (0, [["not a number"] * 256]),
])
def test_conversion_failures_are_numpys(generator, position, value):
    args = list(GOOD)
    args[position] = value
    with pytest.raises(ValueError) as error:
        generator(*args, generator.new_context(1))
    assert "length" not in str(error.value) and "range" not in str(error.value)


def test_context_guard_comes_first(generator):
    for length in (0, 2):
        unusable = corvina.WaveformContext(length)
        with pytest.raises(ValueError, match=r"^length != 1$"):
            generator(Refuses("phone"), GOOD[1], GOOD[2], GOOD[3], unusable)
    with pytest.raises(TypeError):
        generator(*GOOD, corvina.PhoneContext(1))
    with pytest.raises(TypeError):
        generator(*GOOD)
    with pytest.raises(TypeError):
        generator(*GOOD[:3], speakers=GOOD[3], context=generator.new_context(1))


def test_any_numeric_input_is_converted(generator):
    phone, pitch, features, speaker = GOOD
    expected = generator(phone, pitch, features, speaker, generator.new_context(1))
    converted = generator(phone.astype(np.float64).tolist(), pitch.astype(np.int64),
                          np.asfortranarray(features.astype(np.float64)),
                          np.repeat(speaker, 2, axis=1)[:, ::2], generator.new_context(1))
    np.testing.assert_array_equal(converted, expected)


def test_streams_are_deterministic_and_carry_history(generator):
    frames = frame_inputs(12, seed=3)
    first = run(generator, frames)
    np.testing.assert_array_equal(run(generator, frames), first, err_msg="frame seed 3")
    # Another history before the same last frames: those frames come out differently.
    other = run(generator, frame_inputs(4, seed=4) + frames[4:])
    assert np.abs(other[-1] - first[-1]).max() > 1e-4, "frame seeds 3, 4"


def test_output_depends_on_no_later_frame(generator):
    frames = frame_inputs(10, seed=5)
    changed = list(frames)
    phone, pitch, features, speaker = changed[6]
    changed[6] = (phone + 1.0, pitch, features, speaker)
    a, b = run(generator, frames), run(generator, changed)
    np.testing.assert_array_equal(a[:6], b[:6], err_msg="frame seed 5")
    assert all(np.abs(a[f] - b[f]).max() > 1e-4 for f in range(6, 10)), "frame seed 5"
