"""Bad input to every Python entry point. Whatever arrives (any shape, dtype,
memory layout, non-finite values, wrong objects, paths of every kind) the
call either gives exactly what the same values as a plain float32 or int32
array give, or raises the exception the argument rules name; it never
crashes and never leaks.

The oracle for conversions is numpy itself: np.array(x, dtype) performs the
same forced cast the module asks numpy for."""
import gc
import os
import pathlib
import shutil
import tracemalloc
import warnings

import numpy as np
import pytest
from hypothesis import HealthCheck, event, given, settings
from hypothesis import strategies as st

import corvina

# CI runs the same examples every time; HYPOTHESIS_PROFILE=explore draws new
# ones, many more (the failing example is printed either way).
_COMMON = dict(deadline=None, database=None, print_blob=True,
               suppress_health_check=[HealthCheck.too_slow, HealthCheck.data_too_large])
settings.register_profile("ci", max_examples=300, derandomize=True, **_COMMON)
settings.register_profile("explore", max_examples=2000, **_COMMON)
FUZZ = settings(settings.get_profile(os.environ.get("HYPOTHESIS_PROFILE", "ci")))
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


@st.composite
def array_like(draw, shape, dtypes=DTYPES, scale=None):
    """An object numpy can be asked to convert: `shape` and dtype drawn,
    random values with some specials, in some layout."""
    shape = draw(shape)
    dtype = draw(st.sampled_from(dtypes))
    rng = np.random.default_rng(draw(st.integers(0, 2**32 - 1)))
    scale = draw(st.sampled_from([1e-3, 0.3, 1e6, 1e40])) if scale is None else scale
    values = np.asarray(rng.standard_normal(shape) * scale)
    for _ in range(draw(st.integers(0, 3))):
        if values.size:
            values.flat[rng.integers(values.size)] = draw(st.sampled_from(SPECIALS))
    if dtype == "object":
        pool = [float, int, str, lambda v: None, np.float32]
        a = np.empty(shape, object)
        for i, v in enumerate(values.flat):
            kind = pool[rng.integers(len(pool))]
            a.flat[i] = quiet(kind, v) if kind is not int or np.isfinite(v) else v
    elif dtype[0] in "US":
        a = np.array([("%.6g" % v) if rng.random() < 0.97 else "x" for v in values.flat], dtype).reshape(shape)
    else:
        a = quiet(values.astype, dtype)
    return with_layout(a, draw(st.sampled_from(LAYOUTS)), rng)


def near(length, *rest):
    """Shapes around (length, *rest): right, off by one, other ranks, empty."""
    right = (length,) + rest
    return st.sampled_from([right, right, right, (length + 1,) + rest, (max(length - 1, 0),) + rest,
                            (0,) + rest, rest or (1,), (1,) + right, ()])


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


def bits(*arrays):
    return np.concatenate([np.ascontiguousarray(a, np.float32).ravel().view(np.uint32) for a in arrays])


@FUZZ
@given(data=st.data(), kind=st.sampled_from(["phone", "pitch"]))
def test_frame_input_of_any_kind(models, data, kind):
    x = data.draw(array_like(near(160)))
    model = getattr(models, kind)
    expected = convert(x, np.float32, 1)
    call = lambda: quiet(model, x, model.new_context(1))  # noqa: E731
    refused = not isinstance(expected, np.ndarray)
    event("refused" if refused or len(expected) != 160 else "computed")
    if refused:
        raises_like(expected, call)
    elif len(expected) != 160:
        raises_like(ValueError, call, "len(input) != length * IN_HOP_LENGTH")
    else:
        got = call()
        want = model(expected, model.new_context(1))
        if kind == "pitch":  # (quantized_pitch, pitch_features)
            got, want = bits(got[0].view(np.float32), got[1]), bits(want[0].view(np.float32), want[1])
        assert bits(got).tobytes() == bits(want).tobytes()


WAVEFORM_ARGS = [  # name, dtype, rank, trailing dimension
    ("phone", np.float32, 2, 256),
    ("quantized_pitch", np.int32, 1, None),
    ("pitch_features", np.float32, 2, 4),
    ("speaker_embeddings", np.float32, 2, 256),
]
WAVEFORM_RULES = ["len(phone) != length", "phone.shape[1] != PHONE_CHANNELS", "len(quantized_pitch) != length",
                  "len(pitch_features) != length", "pitch_features.shape[1] != 4",
                  "len(speaker_embeddings) != length",
                  "speaker_embeddings.shape[1] != WAVEFORM_GENERATOR_HIDDEN_CHANNELS",
                  "quantized_pitch not in range(PITCH_BINS)"]


def waveform_expectation(args):
    """(exception type, message) of the first failing rule, or the converted arrays."""
    converted = []
    for obj, (_, dtype, rank, _) in zip(args, WAVEFORM_ARGS):
        a = convert(obj, dtype, rank)
        if not isinstance(a, np.ndarray):
            return a, None
        converted.append(a)
    phone, pitch, features, speaker = converted
    failed = [len(phone) != 1, phone.shape[1] != 256, len(pitch) != 1, len(features) != 1, features.shape[1] != 4,
              len(speaker) != 1, speaker.shape[1] != 256, len(pitch) == 1 and not 0 <= pitch[0] < 384]
    for broken, message in zip(failed, WAVEFORM_RULES):  # in the order the call checks them
        if broken:
            return ValueError, message
    return converted, None


@st.composite
def waveform_arguments(draw):
    args = []
    for name, _, rank, width in WAVEFORM_ARGS:
        if name == "quantized_pitch":
            shape = draw(st.sampled_from([(1,), (1,), (1,), (2,), (0,), (), (1, 1)]))
            value = draw(st.sampled_from([0, 1, 200, 383, 384, -1, 2**31 - 1, -2**31, 5.7, np.nan, 1e12]))
            dtype = draw(st.sampled_from(["int32", "int64", "uint16", "float64", "float32", "object", "U12"]))
            if dtype == "object":
                a = np.full(shape, value, object)
            else:
                a = quiet(np.full(shape, value, np.float64).astype, dtype)
            args.append(with_layout(a, draw(st.sampled_from(LAYOUTS)), np.random.default_rng(0)))
        elif draw(st.integers(0, 9)) < 3:
            args.append(draw(array_like(near(1, width), scale=0.3)))
        else:  # mostly well-formed, so that later checks are reached too
            numeric = [d for d in DTYPES if d not in ("object", "U12", "S12")]
            args.append(draw(array_like(st.just((1, width)), dtypes=numeric, scale=0.3)))
    return args


@FUZZ
@given(args=waveform_arguments())
def test_waveform_inputs_of_any_kind(models, args):
    expected, message = waveform_expectation(args)
    call = lambda: quiet(models.waveform, *args, models.waveform.new_context(1))  # noqa: E731
    refused = not isinstance(expected, list)
    event(message or ("refused in conversion" if refused else "computed"))
    if refused:
        # A failed conversion is numpy's error, never read as a rule's.
        assert raises_like(expected, call, message) not in ([] if message else WAVEFORM_RULES)
    else:
        want = models.waveform(*expected, models.waveform.new_context(1))
        assert bits(call()).tobytes() == bits(want).tobytes()


LENGTHS = st.one_of(st.integers(-2**40, 2**40), st.sampled_from([0, 1, 2, -1, 2**31 - 1, -2**31, 2**31, True]),
                    st.builds(np.int64, st.integers(-3, 3)), st.floats(), st.text(max_size=3), st.none())


@FUZZ
@given(length=LENGTHS, kind=st.sampled_from(["phone", "pitch", "waveform"]))
def test_context_lengths(models, length, kind):
    model = getattr(models, kind)
    context_type = type(model.new_context(1))
    is_int = isinstance(length, (int, np.integer))
    if not is_int:
        for make in (lambda: model.new_context(length), lambda: context_type(length)):
            raises_like(TypeError, make)
    elif not -2**31 <= length < 2**31:
        for make in (lambda: model.new_context(length), lambda: context_type(length)):
            raises_like(OverflowError, make)
    else:
        assert isinstance(context_type(length), context_type)
        if length == 1:
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


@FUZZ
@given(size=st.one_of(st.sampled_from([0, 1, 16, 511, 512, 513, 1000, 1024, 1543, 2048]),
                      st.integers(0, 4096)),
       seed=st.integers(0, 2**32 - 1), form=st.integers(0, 4), odd_name=st.booleans())
def test_speaker_files_of_any_size_and_path_form(tmp_path_factory, size, seed, form, odd_name):
    folder = tmp_path_factory.mktemp("speakers")
    # A name that is not valid UTF-8 reaches the file system unchanged.
    path = os.path.join(os.fsencode(folder), b"sp\xff.bin" if odd_name else b"sp.bin")
    data = np.random.default_rng(seed).integers(0, 256, size, np.uint8).tobytes()
    with open(path, "wb") as f:
        f.write(data)
    rows = corvina.read_speaker_embeddings(path_forms(path)[form])
    assert rows.dtype == np.float32 and rows.flags.c_contiguous
    if size % 512:
        assert rows.shape == (0, 256)
    else:
        want = np.frombuffer(data, "<f2").astype(np.float32).reshape(-1, 256)
        assert rows.view(np.uint32).tobytes() == want.view(np.uint32).tobytes()


BAD_PATHS = [("a\0b", ValueError), (b"a\0b", ValueError), (FsPath("a\0b"), ValueError), (3, TypeError),
             (None, TypeError), (bytearray(b"x"), TypeError), (FsPath(3), TypeError)]


def test_speaker_paths_that_name_no_usable_file(tmp_path):
    """No rows from nothing, a directory, devices (one endless) or a file
    that reports no size; bad path objects are refused."""
    for path in (tmp_path / "missing.bin", tmp_path, "/dev/null", "/dev/zero", "/proc/self/status"):
        for form in path_forms(os.fsencode(path)):
            rows = corvina.read_speaker_embeddings(form)
            assert rows.shape == (0, 256) or (path == tmp_path and rows.shape[1] == 256 and not rows.any()), path
    for form in ("", b""):
        assert corvina.read_speaker_embeddings(form).shape == (0, 256)
    for bad, error in BAD_PATHS:
        raises_like(error, lambda: corvina.read_speaker_embeddings(bad))


@pytest.mark.skipif(os.geteuid() == 0, reason="root reads files whatever their mode")
def test_unreadable_speaker_file(tmp_path):
    path = tmp_path / "locked.bin"
    path.write_bytes(bytes(1024))
    path.chmod(0)
    assert corvina.read_speaker_embeddings(path).shape == (0, 256)


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
        outputs.append(bits(model(x, model.new_context(1))[1]).tobytes())
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
