"""Bad input to every Python entry point (any shape, dtype, layout, value,
object or path): the call gives exactly what the values as a plain float32 or
int32 array give, or the exception its rules name; never a crash or a leak.
The oracle is numpy's own forced cast, np.array(x, dtype), as the module asks."""
import gc
import os
import pathlib
import shutil
import tracemalloc
import warnings

import numpy as np
import pytest

import corvina
from signals import bits

CONVERSION_ERRORS = (TypeError, ValueError, OverflowError)

DTYPES = ["float32", "float64", "float16", ">f4", "int8", "int32", "int64", "uint16", "uint64", "bool",
          "complex64", "complex128", "object", "U12", "S12"]
LAYOUTS = ["plain", "fortran", "strided", "reversed", "misaligned", "list", "subclass", "masked", "readonly"]
SPECIALS = [np.nan, np.inf, -np.inf, 0.0, -0.0, 1e-45, 3.4e38, 1e300, -1e300]


class Subclass(np.ndarray):
    pass


def quiet(function, *args, **kwargs):
    """Calls function with numpy's cast warnings silenced (NaN to int,
    complex to real): they are expected here and are not errors."""
    with warnings.catch_warnings(), np.errstate(all="ignore"):
        warnings.simplefilter("ignore")
        return function(*args, **kwargs)


def with_layout(a, layout, rng):
    """The same values as `a` in another memory layout or container."""
    if layout == "fortran":
        return np.asfortranarray(a)
    if layout == "strided" and a.ndim:
        big = np.zeros((2 * a.shape[0],) + a.shape[1:], a.dtype)
        big[::2] = a
        return big[::2]
    if layout == "reversed" and a.ndim:
        return a[::-1].copy()[::-1]
    if layout == "misaligned" and a.dtype != object and a.dtype.alignment > 1:
        raw = bytearray(a.nbytes + 1)
        out = np.frombuffer(raw, a.dtype, a.size, offset=1).reshape(a.shape)
        out[...] = a
        assert out.size == 0 or not out.flags.aligned
        return out
    if layout == "list":
        return a.tolist()
    if layout == "subclass":
        return a.view(Subclass)
    if layout == "masked":
        return np.ma.masked_array(a, mask=rng.random(a.shape) < 0.5)
    if layout == "readonly":
        a.flags.writeable = False
    return a


def values_of(dtype, shape, rng, scale=0.3):
    """Random values with specials, as `dtype` (objects of mixed kinds, text
    with a stray non-number)."""
    values = np.asarray(rng.standard_normal(shape) * scale)
    if values.size:
        values.flat[rng.integers(values.size, size=2)] = rng.choice(SPECIALS, 2)
    if dtype == "object":
        pool = [float, str, lambda v: None, np.float32]
        a = np.empty(shape, object)
        for i, v in enumerate(values.flat):
            a.flat[i] = quiet(pool[i % len(pool)], v)
        return a
    if dtype[0] in "US":
        return np.array([("%.6g" % v) if i % 37 else "x" for i, v in enumerate(values.flat)], dtype).reshape(shape)
    return quiet(values.astype, dtype)


SHAPES = [(160,), (161,), (159,), (0,), (1, 160), ()]


@pytest.mark.parametrize("layout", LAYOUTS)
@pytest.mark.parametrize("dtype", DTYPES)
def test_frame_input_of_every_dtype_and_layout(models, dtype, layout):
    rng = np.random.default_rng(DTYPES.index(dtype) * 100 + LAYOUTS.index(layout))
    for kind in ("phone", "pitch"):
        model = getattr(models, kind)
        for shape in SHAPES:
            x = with_layout(values_of(dtype, shape, rng), layout, rng)
            expected = convert(x, np.float32, 1)
            call = lambda: quiet(model, x, model.new_context(1))  # noqa: E731
            if not isinstance(expected, np.ndarray):
                raises_like(expected, call)
            elif len(expected) != 160:
                raises_like(ValueError, call, "len(input) != length * IN_HOP_LENGTH")
            else:
                assert bits(call()) == bits(model(expected, model.new_context(1))), (kind, shape)


WAVEFORM_ARGS = [  # dtype, rank, trailing dimension
    (np.float32, 2, 256), (np.int32, 1, None), (np.float32, 2, 4), (np.float32, 2, 256)]
PITCH_VALUES = [0, 1, 383, 384, -1, 2**31 - 1, -2**31, 5.7, np.nan, 1e12]


def waveform_expectation(args):
    """(the converted arrays or the exception of the first failing
    conversion, the range rule's message if only that fails). Wrong lengths
    and widths, and the order of the checks, are test_module.py's."""
    converted = [convert(obj, dtype, rank) for obj, (dtype, rank, _) in zip(args, WAVEFORM_ARGS)]
    failed = [a for a in converted if not isinstance(a, np.ndarray)]
    if failed:
        return failed[0], None
    if not 0 <= converted[1][0] < 384:
        return ValueError, "quantized_pitch not in range(PITCH_BINS)"
    return converted, None


@pytest.mark.parametrize("layout", LAYOUTS)
@pytest.mark.parametrize("dtype", DTYPES)
def test_waveform_inputs_of_every_dtype_and_layout(models, dtype, layout):
    """Each argument in turn takes the dtype and layout, in its own shape and
    one rank short; the others stay well formed."""
    rng = np.random.default_rng(DTYPES.index(dtype) * 100 + LAYOUTS.index(layout))
    good = [np.zeros((1, 256), np.float32), np.array([3], np.int32), np.zeros((1, 4), np.float32),
            np.full((1, 256), 0.1, np.float32)]
    for position, (_, _, width) in enumerate(WAVEFORM_ARGS):
        if width is None:
            variants = [quiet(np.full((1,), v, np.float64).astype, dtype) if dtype != "object"
                        else np.full((1,), v, object) for v in PITCH_VALUES]
        else:
            variants = [values_of(dtype, shape, rng) for shape in [(1, width), (width,)]]
        for variant in variants:
            args = list(good)
            args[position] = with_layout(variant, layout, rng)
            expected, rule = waveform_expectation(args)
            call = lambda: quiet(models.waveform, *args, models.waveform.new_context(1))  # noqa: E731
            if isinstance(expected, list):
                assert bits(call()) == bits(models.waveform(*expected, models.waveform.new_context(1)))
            else:
                message = raises_like(expected, call, rule)
                assert rule or "not in range" not in message, "a failed conversion read as the rule"


@pytest.mark.parametrize("length, error", [
    (1, None), (0, ValueError), (2, ValueError), (-1, ValueError), (2**31 - 1, ValueError), (-2**31, ValueError),
    (True, None), (np.int64(1), None), (np.int64(-3), ValueError), (2**31, OverflowError), (-2**31 - 1, OverflowError),
    (2**40, OverflowError), (1.0, TypeError), (float("nan"), TypeError), ("1", TypeError), (None, TypeError)])
def test_context_lengths(models, length, error):
    for kind in ("phone", "pitch", "waveform"):
        model = getattr(models, kind)
        context_type = type(model.new_context(1))
        if error in (TypeError, OverflowError):
            raises_like(error, lambda: context_type(length))
            raises_like(error, lambda: model.new_context(length))
        else:
            assert isinstance(context_type(length), context_type)
            if error is None:
                assert type(model.new_context(length)) is context_type
            else:
                raises_like(ValueError, lambda: model.new_context(length), "length != 1")


class FsPath:
    def __init__(self, path):
        self.path = path

    def __fspath__(self):
        return self.path


def path_forms(path):
    text = os.fsdecode(path)
    return [text, os.fsencode(path), pathlib.Path(text), FsPath(text), FsPath(os.fsencode(path))]


def test_speaker_files_in_every_path_form(tmp_path):
    """Sizes and devices are the native speaker-file tests'; here the module's
    path forms reach the file (a name that is not valid UTF-8 unchanged) and
    a size that is not whole rows gives none."""
    for name, size in ((b"sp.bin", 1024), (b"sp\xff.bin", 1024), (b"odd.bin", 1543)):
        path = os.path.join(os.fsencode(tmp_path), name)
        data = np.random.default_rng(size).integers(0, 256, size, np.uint8).tobytes()
        with open(path, "wb") as f:
            f.write(data)
        for form in path_forms(path):
            rows = corvina.read_speaker_embeddings(form)
            assert rows.dtype == np.float32 and rows.flags.c_contiguous
            want = np.frombuffer(b"" if size % 512 else data, "<f2").astype(np.float32).reshape(-1, 256)
            assert rows.view(np.uint32).tobytes() == want.view(np.uint32).tobytes()


def convert(obj, dtype, ndim):
    """What the module's conversion yields: the array, or the exceptions it
    may raise. numpy is free to report a value it cannot cast and a wrong
    depth in either order, so a failure may be any of the conversion errors."""
    try:
        a = quiet(np.array, obj, dtype=dtype)
    except CONVERSION_ERRORS:
        return CONVERSION_ERRORS
    return a if a.ndim == ndim else ValueError


def raises_like(expected, call, message=None):
    with pytest.raises(expected) as caught:
        call()
    if message is not None:
        assert str(caught.value) == message
    return str(caught.value)


BAD_PATHS = [("a\0b", ValueError), (b"a\0b", ValueError), (FsPath("a\0b"), ValueError), (3, TypeError),
             (None, TypeError), (bytearray(b"x"), TypeError), (FsPath(3), TypeError)]


def test_speaker_paths_that_name_no_usable_file(tmp_path):
    """No rows from nothing, a directory, devices (one endless), a file that
    reports no size or one that may not be read; bad path objects are refused."""
    for path in (tmp_path / "missing.bin", tmp_path, "/dev/null", "/dev/zero", "/proc/self/status"):
        for form in path_forms(os.fsencode(path)):
            rows = corvina.read_speaker_embeddings(form)
            assert rows.shape == (0, 256) or (path == tmp_path and rows.shape[1] == 256 and not rows.any()), path
    for form in ("", b""):
        assert corvina.read_speaker_embeddings(form).shape == (0, 256)
    for bad, error in BAD_PATHS:
        raises_like(error, lambda: corvina.read_speaker_embeddings(bad))
    if os.geteuid() != 0:                  # root reads files whatever their mode
        locked = tmp_path / "locked.bin"
        locked.write_bytes(bytes(1024))
        locked.chmod(0)
        assert corvina.read_speaker_embeddings(locked).shape == (0, 256)


def test_parameter_paths_in_every_form(model_dir, tmp_path):
    """Every path form reaches the file; bad forms are refused before the
    engine sees them (a path that names no file ends the process, which
    test_parameter_files.py covers in subprocesses)."""
    odd = os.path.join(os.fsencode(tmp_path), b"p\xff.bin")  # not valid UTF-8
    shutil.copy(os.path.join(model_dir, "pitch_estimator.bin"), odd)
    x = np.linspace(-0.5, 0.5, 160, dtype=np.float32)
    outputs = []
    for form in path_forms(odd):
        model = corvina.PitchEstimator()
        model.read_parameters(form)
        outputs.append(bits(model(x, model.new_context(1))[1]))
    assert len(set(outputs)) == 1
    for bad, error in BAD_PATHS:
        raises_like(error, lambda: model.read_parameters(bad))
    raises_like(TypeError, model.read_parameters)


def traced_growth(work, rounds):
    """Bytes still allocated through Python and numpy after `rounds` more
    calls of work(), once a warm-up has settled every cache."""
    for _ in range(20):
        work()
    gc.collect()
    tracemalloc.start()
    try:
        before = tracemalloc.get_traced_memory()[0]
        for _ in range(rounds):
            work()
        gc.collect()
        return tracemalloc.get_traced_memory()[0] - before
    finally:
        tracemalloc.stop()


def test_no_path_leaks(models, tmp_path):
    """Every failure path and the success path of each entry point release
    what they convert or create: a leaked 160-float array per call would be
    over 100 kB here."""
    phone, pitch, waveform = models.phone, models.pitch, models.waveform
    contexts = phone.new_context(1), pitch.new_context(1), waveform.new_context(1)
    x64 = np.zeros(160)
    row, features = np.zeros((1, 256)), np.zeros((1, 4))
    speaker_file = tmp_path / "s.bin"
    speaker_file.write_bytes(bytes(1024))

    def swallow(call):
        try:
            call()
        except CONVERSION_ERRORS:
            pass

    cases = {
        "phone": lambda: phone(x64, contexts[0]),
        "phone wrong length": lambda: swallow(lambda: phone(x64[:159], contexts[0])),
        "phone bad conversion": lambda: swallow(lambda: phone(["x"] * 160, contexts[0])),
        "pitch": lambda: pitch(x64, contexts[1]),
        "pitch wrong length": lambda: swallow(lambda: pitch(x64[:3], contexts[1])),
        "waveform": lambda: waveform(row, [3], features, row, contexts[2]),
        "waveform last check": lambda: swallow(lambda: waveform(row, [384], features, row, contexts[2])),
        "waveform last conversion": lambda: swallow(lambda: waveform(row, [3], features, "x", contexts[2])),
        "waveform shape": lambda: swallow(lambda: waveform(row, [3], row, row, contexts[2])),
        "guard": lambda: swallow(lambda: phone(x64, corvina.PhoneContext(2))),
        "speakers": lambda: corvina.read_speaker_embeddings(speaker_file),
        "speakers missing": lambda: corvina.read_speaker_embeddings(tmp_path / "none"),
        "new_context": lambda: phone.new_context(1),
        "new_context refused": lambda: swallow(lambda: phone.new_context(5)),
    }
    growth = {name: traced_growth(work, 300) for name, work in cases.items()}
    assert max(growth.values()) < 64 << 10, growth
