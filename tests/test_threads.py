"""Calls release the interpreter lock: one model serves many threads, each
with its own contexts, bit for bit as if run one after another; a context or
model touched while a call is using it refuses with RuntimeError instead of
racing."""
import threading
import time

import numpy as np
import pytest

import corvina
from corvina_tools import ModelSet, write_test_model
from signals import frames, speech_like

N_THREADS = 6
N_FRAMES = 30
SEED = 11


@pytest.fixture(scope="module")
def models(tmp_path_factory):
    return ModelSet.load(write_test_model(str(tmp_path_factory.mktemp("threads")), seed=SEED, speakers=2))


@pytest.fixture(scope="module")
def streams(models):
    """One input signal per thread, with the phone and pitch outputs the
    waveform generator is fed."""
    out = []
    for k in range(N_THREADS):
        rows = frames(speech_like(N_FRAMES, seed=SEED + k))
        pc, tc = models.phone.new_context(1), models.pitch.new_context(1)
        features = [models.phone(x, pc) for x in rows]
        pitch = [models.pitch(x, tc) for x in rows]
        out.append((rows, features, pitch))
    return out


def run_phone(models, stream):
    context = models.phone.new_context(1)
    return [models.phone(x, context) for x in stream[0]]


def run_pitch(models, stream):
    context = models.pitch.new_context(1)
    return [np.concatenate([b.view(np.float32), f.ravel()]) for b, f in (models.pitch(x, context) for x in stream[0])]


def run_waveform(models, stream):
    context = models.waveform.new_context(1)
    speaker = models.speakers[:1]
    return [models.waveform(f, b, pf, speaker, context) for f, (b, pf) in zip(stream[1], stream[2])]


def run_chain(models, stream):
    contexts = models.phone.new_context(1), models.pitch.new_context(1), models.waveform.new_context(1)
    out = []
    for x in stream[0]:
        features = models.phone(x, contexts[0])
        bins, pitch_features = models.pitch(x, contexts[1])
        out.append(models.waveform(features, bins, pitch_features, models.speakers[1:], contexts[2]))
    return out


def in_threads(count, work):
    """Runs work(k) on `count` threads started together; returns the results
    in thread order and re-raises the first exception."""
    barrier = threading.Barrier(count)
    results, errors = [None] * count, []

    def body(k):
        try:
            barrier.wait()
            results[k] = work(k)
        except BaseException as e:  # noqa: BLE001 - handed to the main thread
            errors.append(e)

    threads = [threading.Thread(target=body, args=(k,)) for k in range(count)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    if errors:
        raise errors[0]
    return results


def bits(outputs):
    return np.concatenate([np.asarray(o, np.float32).ravel() for o in outputs]).view(np.uint32)


@pytest.mark.parametrize("run", [run_phone, run_pitch, run_waveform, run_chain], ids=lambda f: f.__name__[4:])
def test_shared_model_matches_sequential_runs(models, streams, run):
    sequential = [bits(run(models, s)) for s in streams]
    concurrent = in_threads(N_THREADS, lambda k: bits(run(models, streams[k])))
    for k in range(N_THREADS):
        np.testing.assert_array_equal(concurrent[k], sequential[k], err_msg=f"thread {k}, seed {SEED + k}")


def _call(models, kind, context, x, stream):
    if kind == "phone":
        return models.phone(x, context)
    if kind == "pitch":
        b, f = models.pitch(x, context)
        return np.concatenate([b.view(np.float32), f.ravel()])
    # The generator's input is fixed: the stream's first phone and pitch outputs.
    return models.waveform(stream[1][0], *stream[2][0], models.speakers[:1], context)


def _new_context(models, kind):
    return getattr(models, kind).new_context(1)


@pytest.mark.parametrize("kind", ["phone", "pitch", "waveform"])
def test_one_context_from_two_threads_is_refused_not_corrupted(models, streams, kind):
    """Both threads feed the same frame to one context, so after S successful
    calls the context must be exactly where S sequential calls leave it,
    whichever thread made them; the successful outputs are the first S
    sequential outputs in some order."""
    stream = streams[0]
    frame = stream[0][7]
    shared = _new_context(models, kind)
    refused = [0, 0]

    def work(k):
        outputs, deadline = [], time.monotonic() + 10
        while len(outputs) < 40 and time.monotonic() < deadline:
            try:
                outputs.append(bits([_call(models, kind, shared, frame, stream)]))
            except RuntimeError as e:
                assert str(e) == "context is in use by another call"
                refused[k] += 1
        return outputs

    done = in_threads(2, work)
    assert sum(refused) > 0, "the two threads never overlapped"
    successes = done[0] + done[1]

    reference = _new_context(models, kind)
    expected = [bits([_call(models, kind, reference, frame, stream)]) for _ in successes]
    assert sorted(map(bytes, successes)) == sorted(map(bytes, expected))
    later = [bits([_call(models, kind, c, x, stream)]) for x in stream[0][:5] for c in (shared, reference)]
    for k in range(0, len(later), 2):
        np.testing.assert_array_equal(later[k], later[k + 1], err_msg=f"frame {k // 2} after the race")


def _keep_calling(model, context, stop, errors):
    frame = np.full(160, 0.1, np.float32)
    while not stop.is_set():
        try:
            model(frame, context)
        except BaseException as e:  # noqa: BLE001
            errors.append(e)
            return


def _refusal_while_busy(model, attempt, context=None):
    """Runs calls of `model` on another thread and repeats `attempt` until it
    has been refused once; returns the refusal's message."""
    stop, errors = threading.Event(), []
    worker = threading.Thread(target=_keep_calling, args=(model, context or model.new_context(1), stop, errors))
    worker.start()
    message, deadline = None, time.monotonic() + 10
    try:
        while message is None and time.monotonic() < deadline:
            try:
                attempt()
            except RuntimeError as e:
                message = str(e)
    finally:
        stop.set()
        worker.join()
    assert not errors, errors
    assert message is not None, "no attempt overlapped a running call"
    return message


def test_model_reading_and_reinitialising_are_refused_while_calls_run(models, tmp_path):
    path = write_test_model(str(tmp_path), seed=SEED, speakers=1) + "/phone_extractor.bin"
    model = corvina.PhoneExtractor()
    model.read_parameters(path)
    busy = "model is in use by a running call"
    assert _refusal_while_busy(model, lambda: model.read_parameters(path)) == busy
    assert _refusal_while_busy(model, model.__init__) == busy
    # Idle again: both are allowed.
    model.__init__()
    model.read_parameters(path)


def test_context_reinitialising_is_refused_while_a_call_uses_it(models):
    context = models.phone.new_context(1)
    assert _refusal_while_busy(models.phone, lambda: context.__init__(1), context) == "context is in use by another call"
    context.__init__(2)  # idle: allowed, and leaves no engine block
    with pytest.raises(ValueError, match="^length != 1$"):
        models.phone(np.zeros(160, np.float32), context)


class Sneaky:
    """An input whose conversion runs Python code that touches the objects
    the call is about to use."""

    def __init__(self, action):
        self.action = action

    def __array__(self, dtype=None, copy=None):
        self.action()
        return np.zeros(160, np.float32)


def test_objects_changed_during_conversion_are_fetched_again(models):
    """A conversion may re-initialise the context or the model; the call uses
    what the objects hold afterwards, never a freed block."""
    context = models.phone.new_context(1)
    with pytest.raises(ValueError, match="^length != 1$"):
        models.phone(Sneaky(lambda: context.__init__(2)), context)

    model = corvina.PhoneExtractor()
    fresh = model(np.zeros(160, np.float32), model.new_context(1))
    replaced = model(Sneaky(model.__init__), model.new_context(1))
    np.testing.assert_array_equal(replaced, fresh)

    # A call nested inside the conversion finishes before the outer one claims.
    context = models.phone.new_context(1)
    reference = models.phone.new_context(1)
    nested = Sneaky(lambda: models.phone(np.zeros(160, np.float32), context))
    outer = models.phone(nested, context)
    models.phone(np.zeros(160, np.float32), reference)
    np.testing.assert_array_equal(outer, models.phone(np.zeros(160, np.float32), reference))

