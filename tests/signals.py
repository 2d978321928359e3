"""What many tests share: the seed of the randomised tests, one stream
through a model set's three models, and a stand-in for them. The
speech-like signal is corvina_tools.speech's."""
import os
import threading

import numpy as np

# Seed of the randomised tests, printed when one fails; the same variable
# sets the native tests' seed.
SEED = int(os.environ.get("CORVINA_TEST_SEED", "20261121"))


def bits(result):
    """A result (an array, or a tuple or list of them) as raw bytes, to compare bit for bit."""
    arrays = result if isinstance(result, (tuple, list)) else [result]
    return b"".join(np.ascontiguousarray(a).tobytes() for a in arrays)


class Chain:
    """One stream through the three models of a ModelSet with contexts of
    its own: 160 samples in, 240 out. The last frame's phone features,
    pitch bin and pitch features are kept in `last`."""

    def __init__(self, models, speaker=0):
        self.m, self.speaker = models, models.speakers[speaker:speaker + 1]
        self.contexts = [m.new_context(1) for m in (models.phone, models.pitch, models.waveform)]
        self.last = None

    def __call__(self, x):
        self.last = (self.m.phone(x, self.contexts[0]), *self.m.pitch(x, self.contexts[1]))
        return self.m.waveform(*self.last, self.speaker, self.contexts[2])


class StretchChain:
    """Stands in for the models inside a Converter: records each frame and
    answers with it stretched to 240 samples (a known, frame-local mapping)."""

    def __init__(self):
        self.frames = []

    def reset(self):
        self.frames = []

    def __call__(self, frame, shift_bins, speaker_row):
        self.frames.append(frame.copy())
        return np.interp(np.arange(240) * 160 / 240, np.arange(160), frame).astype(np.float32)


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
