"""The module's public surface and the rules of its calls, one frame and
batches alike: every error message once, checks before any state changes,
the context guard first, object lifecycle (conversions: test_fuzz_python)."""
import gc
import re
import resource

import numpy as np
import pytest

import corvina
import corvina_tools
from signals import bits

TYPES = {"phone": (corvina.PhoneExtractor, corvina.PhoneContext),
         "pitch": (corvina.PitchEstimator, corvina.PitchContext),
         "waveform": (corvina.WaveformGenerator, corvina.WaveformContext)}
WAVEFORM_ARGS = ("phone", "quantized_pitch", "pitch_features", "speaker_embeddings")


def test_public_surface():
    assert isinstance(corvina.__version__, str) and corvina.__version__ == corvina_tools.__version__
    public = {k: v for k, v in vars(corvina).items() if not k.startswith("_")}
    assert {k for k, v in public.items() if isinstance(v, type)} == {t.__name__ for p in TYPES.values() for t in p}
    assert [k for k, v in public.items() if callable(v) and not isinstance(v, type)] == ["read_speaker_embeddings"]
    assert {k: v for k, v in public.items() if isinstance(v, int)} == {
        "IN_HOP_LENGTH": 160, "OUT_HOP_LENGTH": 240, "IN_SAMPLE_RATE": 16000, "OUT_SAMPLE_RATE": 24000,
        "PHONE_CHANNELS": 256, "WAVEFORM_GENERATOR_HIDDEN_CHANNELS": 256, "PITCH_BINS": 384,
        "PITCH_BINS_PER_OCTAVE": 96}


def frame(kind, n=None, seed=0):
    """Good arguments of `kind` for one frame (n None) or a batch of n
    streams, the contexts left out."""
    rng = np.random.default_rng(seed)
    if kind != "waveform":
        return [rng.uniform(-0.5, 0.5, 160 if n is None else (n, 160)).astype(np.float32)]
    n = 1 if n is None else n
    return [rng.standard_normal((n, 256)).astype(np.float32), rng.integers(0, 384, n).astype(np.int32),
            rng.standard_normal((n, 4)).astype(np.float32), (0.3 * rng.standard_normal((n, 256))).astype(np.float32)]


class Refuses:
    """An argument whose conversion fails with its own name."""

    def __init__(self, name):
        self.name = name

    def __array__(self, *args, **kwargs):
        raise LookupError(self.name)


def test_results_and_keywords(models):
    phone = models.phone(input=frame("phone")[0], context=models.phone.new_context(1))
    assert phone.shape == (1, 256) and phone.dtype == np.float32 and phone.flags.c_contiguous
    bins, features = models.pitch(input=frame("pitch")[0], context=models.pitch.new_context(1))
    assert bins.shape == (1,) and bins.dtype == np.int32 and 1 <= bins[0] <= 383
    assert features.shape == (1, 4) and features.dtype == np.float32
    assert bins.flags.owndata and features.flags.owndata
    out = models.waveform(**dict(zip(WAVEFORM_ARGS, frame("waveform"))), context=models.waveform.new_context(1))
    assert out.shape == (240,) and out.dtype == np.float32 and np.isfinite(out).all() and out.any()


HOP = "len(input) != length * IN_HOP_LENGTH"
ERRORS = [  # batch size (None: one frame), kind, argument, value, message
    (None, "phone", 0, np.zeros(159), HOP),
    (None, "pitch", 0, np.zeros(161), HOP),
    (None, "waveform", 0, np.zeros((2, 256)), "len(phone) != length"),
    (None, "waveform", 0, np.zeros((1, 255)), "phone.shape[1] != PHONE_CHANNELS"),
    (None, "waveform", 1, np.zeros(2, np.int32), "len(quantized_pitch) != length"),
    (None, "waveform", 2, np.zeros((0, 4)), "len(pitch_features) != length"),
    (None, "waveform", 2, np.zeros((1, 3)), "pitch_features.shape[1] != 4"),
    (None, "waveform", 3, np.zeros((2, 256)), "len(speaker_embeddings) != length"),
    (None, "waveform", 3, np.zeros((1, 257)), "speaker_embeddings.shape[1] != WAVEFORM_GENERATOR_HIDDEN_CHANNELS"),
    (None, "waveform", 1, np.array([384]), "quantized_pitch not in range(PITCH_BINS)"),
    (None, "waveform", 1, np.array([-1]), "quantized_pitch not in range(PITCH_BINS)"),
    (3, "phone", 0, np.zeros((3, 159)), "input.shape[1] != IN_HOP_LENGTH"),
    (3, "phone", 0, np.zeros((2, 160)), "len(contexts) != len(input)"),
    (3, "pitch", 0, np.zeros((4, 160)), "len(contexts) != len(input)"),
    (3, "pitch", 0, np.zeros((3, 320)), "input.shape[1] != IN_HOP_LENGTH"),
    (3, "waveform", 0, np.zeros((2, 256)), "len(contexts) != len(phone)"),
    (3, "waveform", 0, np.zeros((3, 255)), "phone.shape[1] != PHONE_CHANNELS"),
    (3, "waveform", 1, np.zeros(4, np.int32), "len(contexts) != len(quantized_pitch)"),
    (3, "waveform", 2, np.zeros((2, 4)), "len(contexts) != len(pitch_features)"),
    (3, "waveform", 2, np.zeros((3, 3)), "pitch_features.shape[1] != 4"),
    (3, "waveform", 3, np.zeros((4, 256)), "len(contexts) != len(speaker_embeddings)"),
    (3, "waveform", 3, np.zeros((3, 257)), "speaker_embeddings.shape[1] != WAVEFORM_GENERATOR_HIDDEN_CHANNELS"),
    (3, "waveform", 1, [0, 384, 5], "quantized_pitch not in range(PITCH_BINS)"),
    (3, "waveform", 1, [5, 0, -1], "quantized_pitch not in range(PITCH_BINS)"),
]


@pytest.mark.parametrize("n, kind, position, value, message", ERRORS)
def test_refused_frames_name_their_rule_and_leave_the_streams_untouched(models, n, kind, position, value, message):
    model, args = getattr(models, kind), frame(kind, n)
    contexts, fresh = ([model.new_context(1) for _ in range(n or 1)] for _ in range(2))
    call = (lambda a, c: model(*a, c[0])) if n is None else (lambda a, c: model.batch(*a, c))  # noqa: E731
    bad = list(args)
    bad[position] = value
    with pytest.raises(ValueError, match=f"^{re.escape(message)}$"):
        call(bad, contexts)
    # Nothing ran: the contexts still give a fresh stream's first frame.
    assert bits(call(args, contexts)) == bits(call(args, fresh))


def test_waveform_converts_in_order_then_checks_in_order(models):
    good, context = frame("waveform"), models.waveform.new_context(1)
    for first in range(4):
        with pytest.raises(LookupError, match=WAVEFORM_ARGS[first]):
            models.waveform(*good[:first], *map(Refuses, WAVEFORM_ARGS[first:]), context)
    # A shape that would fail its check waits for the later conversions.
    with pytest.raises(LookupError, match="speaker_embeddings"):
        models.waveform(np.zeros((2, 256)), good[1], good[2], Refuses("speaker_embeddings"), context)
    for args, message in [((np.zeros((2, 255)), [400], np.zeros((1, 3)), good[3]), "len(phone) != length"),
                          ((good[0], [400], np.zeros((1, 3)), np.zeros((2, 256))), "pitch_features.shape[1] != 4")]:
        with pytest.raises(ValueError, match=f"^{re.escape(message)}$"):
            models.waveform(*args, context)
    for edge in (0, 383):
        assert models.waveform(good[0], [edge], *good[2:], context).shape == (240,)


@pytest.mark.parametrize("kind", TYPES)
def test_context_rules_come_before_the_input_is_looked_at(models, kind, tmp_path):
    model_type, context_type = TYPES[kind]
    model, args = getattr(models, kind), frame(kind)

    class Own(context_type):
        pass

    class Lazy(context_type):
        def __init__(self):
            pass

    class LazyModel(model_type):
        def __init__(self):
            pass

    # A model whose __init__ never ran holds no block: refused, never read.
    with pytest.raises(RuntimeError):
        LazyModel().read_parameters(tmp_path / "never-read.bin")
    with pytest.raises(RuntimeError):
        LazyModel()(*args, model.new_context(1))

    assert bits(model(*args, Own(1))) == bits(model(*args, model.new_context(1)))
    for unusable in (context_type(0), context_type(2), Lazy()):
        with pytest.raises(ValueError, match=r"^length != 1$"):
            model(*map(Refuses, args), unusable)
    other = TYPES["pitch" if kind == "phone" else "phone"][1](1)
    for wrong in (other, None, model, 1):
        with pytest.raises(TypeError):
            model(*args, wrong)
    for call in (lambda: model(*args), lambda: model(*args, model.new_context(1), 1),
                 lambda: model(*args, context=model.new_context(1), frames=1)):
        with pytest.raises(TypeError):
            call()
    # A batch: every context checked, none given twice.
    own = [model.new_context(1) for _ in range(3)]
    for contexts, error, message in [(own[:1] + [other] + own[2:], TypeError, r"^contexts\[1\] must be corvina\."),
                                     (own[:1] + [None] + own[2:], TypeError, r"^contexts\[1\] must be corvina\."),
                                     (3, TypeError, None), (own[:2] + [context_type(2)], ValueError, "^length != 1$"),
                                     (own[:2] + own[:1], ValueError, "^contexts are not distinct$")]:
        with pytest.raises(error, match=message):
            model.batch(*frame(kind, 3), contexts)


def test_empty_batches_and_numeric_input(models):
    assert models.phone.batch(np.zeros((0, 160)), []).shape == (0, 256)
    bins, features = models.pitch.batch(np.zeros((0, 160)), ())
    assert bins.shape == (0,) and bins.dtype == np.int32 and features.shape == (0, 4)
    assert models.waveform.batch(*frame("waveform", 0), []).shape == (0, 240)
    x = frame("pitch", 3)[0]
    contexts = [[models.pitch.new_context(1) for _ in range(3)] for _ in range(2)]
    assert bits(models.pitch.batch(x.astype(np.float64), contexts[0])) == bits(models.pitch.batch(x, contexts[1]))


def rss_bytes():
    with open("/proc/self/statm") as f:
        return int(f.read().split()[1]) * resource.getpagesize()


def test_blocks_are_freed():
    # Each generator block is 11 MB and zero-filled (touched) at creation, so
    # a leak shows in the resident size; the first rounds let the allocator
    # settle on the memory it keeps.
    def cycle(rounds):
        for _ in range(rounds):
            for model_type, context_type in TYPES.values():
                model = model_type()
                model.__init__()  # re-initialising frees the replaced block
                context = model.new_context(1)
                context.__init__(1)
                context_type(1)
        gc.collect()

    cycle(20)
    before = rss_bytes()
    cycle(300)
    assert rss_bytes() - before < 16 << 20
