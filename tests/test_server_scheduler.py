"""The scheduler's frame bookkeeping on a fake clock, with a fake engine whose
batch costs a fixed part plus a part per frame: streams that fall behind
catch up within every tick's deadline, and every stream's frames come out
once each and in order."""
from types import SimpleNamespace

import numpy as np

from corvina_tools.converter import IN_HOP, OUT_HOP
from corvina_tools.server.scheduler import Frame, Scheduler, Stream

# In the fake clock's units (exact in binary): 16 streams take 7 of a tick's
# 10, so running every stream twice in one tick would miss the deadline.
TICK, FIXED, PER_FRAME, STREAMS = 10.0, 1.0, 0.375, 16
TICKS = 24
# tick -> streams that get extra frames before it (a bursty client, a late tick)
FALL_BEHIND = {3: [0], 8: list(range(STREAMS)), 15: [5] * 4 + [9] * 2}


class FakeEngine:
    """The three batch calls; a frame's number comes out in its samples."""

    def __init__(self):
        self.now = 0.0
        self.phone = SimpleNamespace(batch=self.phone_batch)
        self.pitch = SimpleNamespace(batch=lambda x, contexts: (np.zeros(len(x), np.int32), None))
        self.waveform = SimpleNamespace(batch=lambda features, *rest: np.repeat(features, OUT_HOP, axis=1))

    def phone_batch(self, x, contexts):
        self.now += FIXED + PER_FRAME * len(x)
        return x[:, :1]


def test_streams_behind_catch_up_within_the_tick_deadlines():
    engine = FakeEngine()
    scheduler = Scheduler(engine, tick_seconds=TICK, clock=lambda: engine.now)
    delivered = [[] for _ in range(STREAMS)]
    streams = [Stream(SimpleNamespace(contexts=(None,) * 3, frames=0), lambda out, last, got=got: got.append(out[0]))
               for got in delivered]
    for stream in streams:
        scheduler.add(stream)
    sent = [0] * STREAMS

    def send(k):
        frame = np.full(IN_HOP, sent[k], np.float32)
        streams[k].queue.append(Frame(frame, 0, np.zeros((1, 256), np.float32), 0, False))
        sent[k] += 1

    backlog = []
    for t in range(TICKS):
        for k in list(range(STREAMS)) + FALL_BEHIND.get(t, []):
            send(k)
        engine.now = max(engine.now, t * TICK)
        scheduler.tick(deadline=(t + 1) * TICK)
        assert engine.now <= (t + 1) * TICK, f"tick {t} ended at {engine.now}"
        backlog.append(sum(len(s.queue) for s in streams))
    for start in FALL_BEHIND:
        after = backlog[start:start + 4]
        assert after[-1] == 0 and all(a > b for a, b in zip(after, after[1:]) if a), (start, backlog)
    for k, got in enumerate(delivered):
        assert got == list(range(sent[k])), k
