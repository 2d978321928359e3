"""The models' batch methods: one frame of many streams per call, each stream
bit for bit what its own __call__ gives, whichever streams take part."""
import re

import numpy as np
import pytest

corvina = pytest.importorskip("corvina")
from reference import phone, pitch, waveform  # noqa: E402
from signals import frames, speech_like  # noqa: E402
from test_threads import _refusal_while_busy  # noqa: E402

N_STREAMS = 5
N_FRAMES = 50
SEED = 31
KINDS = ("phone", "pitch", "waveform")


@pytest.fixture(scope="module")
def nets(tmp_path_factory):
    folder = tmp_path_factory.mktemp("batch")
    built = {}
    for kind, model, reference in (("phone", corvina.PhoneExtractor(), phone),
                                   ("pitch", corvina.PitchEstimator(), pitch),
                                   ("waveform", corvina.WaveformGenerator(), waveform)):
        reference.write_parameters(reference.random_parameters(SEED), folder / kind)
        model.read_parameters(str(folder / kind))
        built[kind] = model
    return built


def frame_inputs(kind, n, seed=SEED):
    """A frame's arguments for n streams, contexts left out."""
    rng = np.random.default_rng(seed)
    if kind != "waveform":
        return [rng.uniform(-0.5, 0.5, (n, 160)).astype(np.float32)]
    return [rng.standard_normal((n, 256)).astype(np.float32), rng.integers(0, 384, n).astype(np.int32),
            rng.standard_normal((n, 4)).astype(np.float32), (0.3 * rng.standard_normal((n, 256))).astype(np.float32)]


def outputs(result):
    return result if isinstance(result, tuple) else (result,)


def test_batches_match_separate_streams_as_streams_join_and_leave(nets):
    extractor, estimator, generator = (nets[k] for k in KINDS)
    rng = np.random.default_rng(SEED)
    signals = [frames(speech_like(N_FRAMES, seed=SEED + k)) for k in range(N_STREAMS)]
    speakers = (0.3 * rng.standard_normal((N_STREAMS, 256))).astype(np.float32)
    # A stream takes its next frame whenever it is in the batch; batches come
    # in any order, all streams at first, then none, then random subsets.
    active = rng.random((N_FRAMES, N_STREAMS)) < 0.6
    active[:3], active[3] = True, False
    single = [[nets[k].new_context(1) for k in KINDS] for _ in range(N_STREAMS)]
    batched = [[nets[k].new_context(1) for k in KINDS] for _ in range(N_STREAMS)]
    position = [0] * N_STREAMS
    for f in range(N_FRAMES):
        members = rng.permutation(np.flatnonzero(active[f]))
        x = np.array([signals[k][position[k]] for k in members], np.float32).reshape(-1, 160)
        contexts = [[batched[k][m] for k in members] for m in range(3)]
        features = extractor.batch(x, contexts[0])
        bins, pitch_features = estimator.batch(x.astype(np.float64), contexts[1])  # any numeric input is cast
        out = generator.batch(features, bins, pitch_features, speakers[members], contexts[2])
        assert bins.dtype == np.int32 and out.dtype == np.float32 and out.shape == (len(members), 240)
        for row, k in enumerate(members):
            own = single[k]
            f_k = extractor(x[row], own[0])
            b_k, p_k = estimator(x[row], own[1])
            expected = (f_k, b_k, p_k, generator(f_k, b_k, p_k, speakers[k:k + 1], own[2])[None])
            got = (features, bins, pitch_features, out)
            for name, e, g in zip(("phone", "pitch bin", "pitch features", "waveform"), expected, got):
                assert np.array_equal(g[row:row + 1], e), f"seed {SEED}, frame {f}, stream {k}: {name} differs"
            position[k] += 1
    assert min(position) > 10, f"seed {SEED}: a stream barely ran"


def test_an_empty_batch_gives_empty_arrays(nets):
    assert nets["phone"].batch(np.zeros((0, 160)), []).shape == (0, 256)
    bins, features = nets["pitch"].batch(np.zeros((0, 160)), ())
    assert bins.shape == (0,) and bins.dtype == np.int32 and features.shape == (0, 4)
    assert nets["waveform"].batch(*frame_inputs("waveform", 0), []).shape == (0, 240)


@pytest.mark.parametrize("kind, position, value, message", [
    ("phone", 0, np.zeros((3, 159)), "input.shape[1] != IN_HOP_LENGTH"),
    ("phone", 0, np.zeros((2, 160)), "len(contexts) != len(input)"),
    ("pitch", 0, np.zeros((4, 160)), "len(contexts) != len(input)"),
    ("pitch", 0, np.zeros((3, 320)), "input.shape[1] != IN_HOP_LENGTH"),
    ("waveform", 0, np.zeros((2, 256)), "len(contexts) != len(phone)"),
    ("waveform", 0, np.zeros((3, 255)), "phone.shape[1] != PHONE_CHANNELS"),
    ("waveform", 1, np.zeros(4, np.int32), "len(contexts) != len(quantized_pitch)"),
    ("waveform", 2, np.zeros((2, 4)), "len(contexts) != len(pitch_features)"),
    ("waveform", 2, np.zeros((3, 3)), "pitch_features.shape[1] != 4"),
    ("waveform", 3, np.zeros((4, 256)), "len(contexts) != len(speaker_embeddings)"),
    ("waveform", 3, np.zeros((3, 257)), "speaker_embeddings.shape[1] != WAVEFORM_GENERATOR_HIDDEN_CHANNELS"),
    ("waveform", 1, [0, 384, 5], "quantized_pitch not in range(PITCH_BINS)"),
    ("waveform", 1, [5, 0, -1], "quantized_pitch not in range(PITCH_BINS)"),
])
def test_misshapen_inputs_are_refused_and_touch_no_stream(nets, kind, position, value, message):
    model, args = nets[kind], frame_inputs(kind, 3)
    contexts, fresh = [model.new_context(1) for _ in range(3)], [model.new_context(1) for _ in range(3)]
    bad = list(args)
    bad[position] = value
    with pytest.raises(ValueError, match=f"^{re.escape(message)}$"):
        model.batch(*bad, contexts)
    for a, b in zip(outputs(model.batch(*args, contexts)), outputs(model.batch(*args, fresh))):
        np.testing.assert_array_equal(a, b)


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("problem, error, message", [
    ("other model's context", TypeError, "^contexts\\[1\\] must be corvina\\."),
    ("not a context", TypeError, "^contexts\\[1\\] must be corvina\\."),
    ("not a sequence", TypeError, None),
    ("length 2", ValueError, "^length != 1$"),
    ("given twice", ValueError, "^contexts are not distinct$"),
])
def test_unusable_contexts_are_refused(nets, kind, problem, error, message):
    model = nets[kind]
    contexts = [model.new_context(1) for _ in range(3)]
    other = nets["phone" if kind != "phone" else "pitch"]
    contexts = {"other model's context": contexts[:1] + [other.new_context(1)] + contexts[2:],
                "not a context": contexts[:1] + [None] + contexts[2:],
                "not a sequence": 3,
                "length 2": contexts[:2] + [type(contexts[0])(2)],
                "given twice": contexts[:2] + contexts[:1]}[problem]
    with pytest.raises(error, match=message):
        model.batch(*frame_inputs(kind, 3), contexts)


def test_a_context_in_use_elsewhere_refuses_the_whole_batch(nets):
    extractor = nets["phone"]
    contexts = [extractor.new_context(1) for _ in range(3)]
    x = frame_inputs("phone", 3)[0]
    message = _refusal_while_busy(extractor, lambda: extractor.batch(x, contexts), contexts[1])
    assert message == "context is in use by another call"
    # The claim on contexts[0], taken before the refusal, was released with it.
    assert extractor.batch(x, contexts).shape == (3, 256)
