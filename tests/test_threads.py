"""Calls release the interpreter lock: one model serves many threads, each
with its own contexts, bit for bit as if run one after another; a context or
model touched while a call is using it refuses with RuntimeError instead of
racing."""
import os
import threading
import time

import numpy as np
import pytest

import corvina
from corvina_tools.speech import speech_frames
from signals import Chain, bits, in_threads

N_THREADS = 6
N_FRAMES = 30
SEED = 11
STREAMS = [speech_frames(N_FRAMES, seed=SEED + k) for k in range(N_THREADS)]


def run_chain(models, rows):
    """Every model's outputs for a stream through the chain, as raw words."""
    chain = Chain(models, speaker=1)
    return bits([out for x in rows for out in (chain(x), *chain.last)])


def step(models, kind, context, f):
    """Frame f of one model's stream as raw words; the generator's inputs
    are random rows, fixed by f."""
    if kind != "waveform":
        return bits(getattr(models, kind)(STREAMS[0][f], context))
    rng = np.random.default_rng(f)
    phone, features = rng.standard_normal((1, 256)), rng.standard_normal((1, 4))
    return bits(models.waveform(phone, [40 * f], features, models.speakers[:1], context))


def test_shared_models_match_sequential_runs(models):
    sequential = [run_chain(models, rows) for rows in STREAMS]
    concurrent = in_threads(N_THREADS, lambda k: run_chain(models, STREAMS[k]))
    for k in range(N_THREADS):
        assert concurrent[k] == sequential[k], f"thread {k}, seed {SEED + k}"


@pytest.mark.parametrize("kind", ["phone", "pitch", "waveform"])
def test_one_context_from_two_threads_is_refused_not_corrupted(models, kind):
    """Both threads feed the same frame to one context, so after S successful
    calls the context must be exactly where S sequential calls leave it,
    whichever thread made them; the successful outputs are the first S
    sequential outputs in some order."""
    shared = getattr(models, kind).new_context(1)
    refused = [0, 0]

    def work(k):
        outputs, deadline = [], time.monotonic() + 10
        while len(outputs) < 40 and time.monotonic() < deadline:
            try:
                outputs.append(step(models, kind, shared, 7))
            except RuntimeError as e:
                assert str(e) == "context is in use by another call"
                refused[k] += 1
        return outputs

    done = in_threads(2, work)
    assert sum(refused) > 0, "the two threads never overlapped"
    successes = done[0] + done[1]
    reference = getattr(models, kind).new_context(1)
    expected = [step(models, kind, reference, 7) for _ in successes]
    assert sorted(successes) == sorted(expected)
    for f in range(5):
        assert step(models, kind, shared, f) == step(models, kind, reference, f), f"frame {f} after the race"


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


def test_objects_in_use_refuse_to_be_read_reinitialised_or_batched(model_dir):
    """While calls run on a context: the model refuses reading and
    re-initialising, the context re-initialising, a batch that holds it the
    batch; idle again, all are allowed."""
    path = os.path.join(model_dir, "phone_extractor.bin")
    model = corvina.PhoneExtractor()
    model.read_parameters(path)
    busy, x = model.new_context(1), np.zeros((3, 160), np.float32)
    batch = [model.new_context(1), busy, model.new_context(1)]
    for attempt, message in [(lambda: model.read_parameters(path), "model is in use by a running call"),
                             (model.__init__, "model is in use by a running call"),
                             (lambda: busy.__init__(1), "context is in use by another call"),
                             (lambda: model.batch(x, batch), "context is in use by another call")]:
        assert _refusal_while_busy(model, attempt, busy) == message
    # The claim on batch[0], taken before the refusal, was released with it.
    assert model.batch(x, batch).shape == (3, 256)
    busy.__init__(2)  # leaves no engine block
    with pytest.raises(ValueError, match="^length != 1$"):
        model(np.zeros(160, np.float32), busy)
    model.__init__()
    model.read_parameters(path)


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

