"""PitchEstimator.__call__: argument checks, conversion, results, streaming state."""
import numpy as np
import pytest

corvina = pytest.importorskip("corvina")
from reference import pitch  # noqa: E402  (random weights and the file writer)
from signals import frames, speech_like  # noqa: E402

MESSAGE = "len(input) != length * IN_HOP_LENGTH"


@pytest.fixture(scope="module")
def model(tmp_path_factory):
    path = tmp_path_factory.mktemp("pitch") / "pitch.bin"
    pitch.write_parameters(pitch.random_parameters(5), path)
    m = corvina.PitchEstimator()
    m.read_parameters(str(path))
    return m


@pytest.fixture(scope="module")
def stream():
    return frames(speech_like(60, seed=3))


def run(model, rows, context=None):
    context = context or model.new_context(1)
    outputs = [model(row, context) for row in rows]
    return np.array([q[0] for q, _ in outputs]), np.vstack([f for _, f in outputs])


def test_result_is_a_tuple_of_new_int32_and_float32_arrays(model, stream):
    result = model(stream[0], model.new_context(1))
    assert type(result) is tuple and len(result) == 2
    quantized, features = result
    assert quantized.dtype == np.int32 and quantized.shape == (1,)
    assert features.dtype == np.float32 and features.shape == (1, 4)
    assert quantized.flags.owndata and features.flags.owndata
    assert 1 <= quantized[0] <= 383 and 0.0 <= features[0, 1] <= 1.0


@pytest.mark.parametrize("n", [0, 159, 161, 320])
def test_wrong_length_is_rejected(model, n):
    with pytest.raises(ValueError) as error:
        model(np.zeros(n, np.float32), model.new_context(1))
    assert str(error.value) == MESSAGE


def test_argument_errors(model):
    context = model.new_context(1)
    with pytest.raises(ValueError):                        # numpy: exactly one dimension
        model(np.zeros((1, 160), np.float32), context)
    with pytest.raises(ValueError):
        model(["not a number"] * 160, context)
    with pytest.raises(TypeError):                         # a context of another model
        model(np.zeros(160, np.float32), corvina.PhoneContext(1))
    with pytest.raises(TypeError):
        model(np.zeros(160, np.float32))
    with pytest.raises(TypeError):
        model(np.zeros(160, np.float32), context, 1)


def test_context_without_block_is_refused_before_the_input_is_looked_at(model):
    for length in (0, 2):
        context = corvina.PitchContext(length)
        with pytest.raises(ValueError, match="^length != 1$"):
            model(np.zeros(3, np.float32), context)        # wrong length too: the guard comes first
        with pytest.raises(ValueError, match="^length != 1$"):
            model("not an array", context)


def test_any_numeric_input_is_converted_to_float32(model, stream):
    rows = np.round(stream[:8] * 1000)                     # integral values, exact in every type below
    expected = run(model, rows.astype(np.float32))
    strided = np.repeat(rows, 2, axis=1)[:, ::2]           # rows that are not contiguous
    for converted in (rows.astype(np.int16), rows.astype(np.float64), strided):
        quantized, features = run(model, converted)
        np.testing.assert_array_equal(quantized, expected[0])
        np.testing.assert_array_equal(features, expected[1])
    context = model.new_context(1)
    listed = [model(input=row.tolist(), context=context) for row in rows]  # keywords and lists
    np.testing.assert_array_equal(np.vstack([f for _, f in listed]), expected[1])


def test_contexts_are_independent_and_deterministic(model, stream):
    a, b = model.new_context(1), model.new_context(1)
    alone = run(model, stream)
    interleaved = [], []
    for row in stream:
        for context, out in zip((a, b), interleaved):
            q, f = model(row, context)
            out.append((q[0], f[0].copy()))
    for out in interleaved:
        np.testing.assert_array_equal([q for q, _ in out], alone[0])
        np.testing.assert_array_equal(np.vstack([f for _, f in out]), alone[1])
    assert len(set(alone[0])) > 3, "pitch does not follow the input"


def test_outputs_depend_only_on_past_frames(model, stream):
    cut = 40
    changed = stream.copy()
    changed[cut:] = np.random.default_rng(7).standard_normal(changed[cut:].shape).astype(np.float32) * 0.1
    base, other = run(model, stream), run(model, changed)
    np.testing.assert_array_equal(other[0][:cut], base[0][:cut])
    np.testing.assert_array_equal(other[1][:cut], base[1][:cut])
    assert not np.array_equal(other[1][cut], base[1][cut])


def test_silence_reports_the_loudness_floor(model):
    _, features = run(model, np.zeros((5, 160), np.float32))
    np.testing.assert_array_equal(features[:, 0], np.float32(-2.5))
