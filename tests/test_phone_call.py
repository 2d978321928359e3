"""PhoneExtractor.__call__: argument handling, conversion, state and causality."""
import re

import numpy as np
import pytest

from reference import phone
from signals import frames, speech_like

corvina = pytest.importorskip("corvina")

MESSAGE = "len(input) != length * IN_HOP_LENGTH"


@pytest.fixture(scope="module")
def model(tmp_path_factory):
    path = tmp_path_factory.mktemp("phone_call") / "phone.bin"
    phone.write_parameters(phone.random_parameters(5), path)
    m = corvina.PhoneExtractor()
    m.read_parameters(str(path))
    return m


@pytest.fixture(scope="module")
def signal():
    return frames(speech_like(40, seed=5))


def run(model, rows, context=None):
    context = context if context is not None else model.new_context(1)
    return np.concatenate([model(x, context) for x in rows])


def test_result_is_one_float32_row_of_256(model, signal):
    y = model(signal[0], model.new_context(1))
    assert y.shape == (1, 256) and y.dtype == np.float32 and y.flags.c_contiguous
    assert np.isfinite(y).all()
    keyword = model(context=model.new_context(1), input=signal[0])
    np.testing.assert_array_equal(keyword, y)


@pytest.mark.parametrize("n", [0, 159, 161, 320])
def test_wrong_length_is_rejected(model, n):
    with pytest.raises(ValueError, match=f"^{re.escape(MESSAGE)}$"):
        model(np.zeros(n, np.float32), model.new_context(1))


def test_arguments_of_the_wrong_kind_are_rejected(model, signal):
    ctx = model.new_context(1)
    with pytest.raises(ValueError):  # exactly one dimension is required
        model(signal[:1], ctx)
    with pytest.raises(ValueError):
        model(np.float32(0.5), ctx)
    with pytest.raises(TypeError):
        model(signal[0], corvina.PitchEstimator().new_context(1))
    with pytest.raises(TypeError):
        model(signal[0])
    with pytest.raises(TypeError):
        model(signal[0], ctx, ctx)
    with pytest.raises(TypeError):
        model(signal[0], context=ctx, samples=1)


def test_context_guard_comes_before_any_conversion(model, signal):
    class Uninitialised(corvina.PhoneContext):
        def __init__(self):
            pass

    for ctx in (corvina.PhoneContext(2), corvina.PhoneContext(0), Uninitialised()):
        for x in (signal[0], np.zeros(159), "not an array"):
            with pytest.raises(ValueError, match="^length != 1$"):
                model(x, ctx)


def test_uninitialised_model_subclass_raises(signal):
    class Uninitialised(corvina.PhoneExtractor):
        def __init__(self):
            pass

    m = Uninitialised()
    with pytest.raises(RuntimeError):
        m(signal[0], corvina.PhoneExtractor().new_context(1))


def test_any_numeric_input_is_converted_to_float32(model, signal):
    as_float32 = run(model, signal)
    np.testing.assert_array_equal(run(model, signal.astype(np.float64)), as_float32)
    np.testing.assert_array_equal(run(model, [list(map(float, x)) for x in signal[:3]]), as_float32[:3])
    # A strided view is copied to contiguous storage first.
    doubled = np.repeat(signal, 2, axis=1)
    np.testing.assert_array_equal(run(model, [x[::2] for x in doubled]), as_float32)
    pcm = (signal * 3000).astype(np.int16)
    np.testing.assert_array_equal(run(model, pcm), run(model, pcm.astype(np.float32)))


def test_two_contexts_fed_alike_agree_bit_for_bit(model, signal):
    a, b = model.new_context(1), model.new_context(1)
    for x in signal:
        ya, yb = model(x, a), model(x, b)
        assert ya.tobytes() == yb.tobytes()


def test_output_depends_on_the_past_but_never_on_the_future(model, signal):
    ctx = model.new_context(1)
    first, second = model(signal[3], ctx), model(signal[3], ctx)
    assert not np.array_equal(first, second)  # histories and recurrent state moved on
    cut = 25
    changed = signal.copy()
    changed[cut:] = np.random.default_rng(5).uniform(-0.5, 0.5, changed[cut:].shape).astype(np.float32)
    original, altered = run(model, signal), run(model, changed)
    np.testing.assert_array_equal(altered[:cut], original[:cut])
    assert np.abs(altered[cut:] - original[cut:]).max() > 0.1
