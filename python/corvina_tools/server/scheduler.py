"""One scheduler per process: every 10 ms it takes one frame from every stream
that has one and runs them all through the three batch calls, so each
layer's weights are fetched once per tick for all the streams. The batch
calls release the interpreter lock, so the event loop keeps serving sockets
while a tick runs."""
import collections
import concurrent.futures
import math
import sys
import threading
import time
from typing import Callable, NamedTuple, Optional

import numpy as np

from ..converter import IN_HOP, IN_RATE, OUT_HOP, Converter, shift_bins_by
from ..model_set import ModelSet
from .metrics import Metrics

TICK_SECONDS = IN_HOP / IN_RATE
SWITCH_INTERVAL = 0.0005
MIN_PART = 2                 # streams a worker thread takes at the least


class Frame(NamedTuple):
    samples: Optional[np.ndarray]     # (160,) at 16 kHz; None marks the end of a stream
    shift_bins: int              # the stream's settings when the frame was cut
    speaker_row: Optional[np.ndarray] # (1, 256)
    cut: int                     # output samples to drop (the end of a stream's last frame)
    last: bool                   # the stream's last frame


class Stream:
    """A stream's converter and its queue of frames waiting for a tick.

    The event loop cuts frames (`feed`, `finish`); the scheduler thread pops
    one per tick and hands the output to `deliver`, called on that thread
    with the converted model-rate samples and whether they end the stream."""

    def __init__(self, converter: Converter, deliver: Callable[[np.ndarray, bool], None]):
        self.converter = converter
        self.deliver = deliver
        self.queue = collections.deque()       # appended by the loop, popped by the scheduler

    def feed(self, block) -> int:
        """Queue the frames that `block` completes; returns the queue length."""
        return self._queue(self.converter.cut_frames(block), 0)

    def finish(self) -> int:
        """Queue the stream's last frames; the last one carries its cut."""
        frames, cut = self.converter.cut_last_frames()
        if not len(frames):                   # nothing buffered: a marker that ends the stream
            self.queue.append(Frame(None, 0, None, 0, True))
            return len(self.queue)
        return self._queue(frames, cut, last=True)

    def _queue(self, frames, cut, last=False):
        c = self.converter
        for i, samples in enumerate(frames):
            end = i == len(frames) - 1
            self.queue.append(Frame(samples, c.shift_bins, c.speaker_row, cut if end else 0, last and end))
        return len(self.queue)


class BatchCost:
    """How long a batch of n frames takes, from the batches already run: the
    smoothed time of each size seen, interpolated between sizes. Below the
    smallest size seen it scales that one down in proportion, which leaves
    out the part of a batch that does not shrink with it (fetching the
    weights); the first batch of a new smaller size may so run over, once,
    and from then on its own time is known."""

    SMOOTHING = 0.2

    def __init__(self):
        self.seconds = {}                       # batch size -> smoothed seconds

    def record(self, size: int, seconds: float):
        known = self.seconds.get(size, seconds)
        self.seconds[size] = known + self.SMOOTHING * (seconds - known)

    def predict(self, size: int) -> float:
        sizes = sorted(self.seconds)
        if not sizes:
            return 0.0
        if size <= sizes[0] or size >= sizes[-1]:      # in proportion to the nearest size seen
            nearest = sizes[0] if size <= sizes[0] else sizes[-1]
            return self.seconds[nearest] * size / nearest
        return float(np.interp(size, sizes, [self.seconds[n] for n in sizes]))

    def most_within(self, seconds: float, limit: int) -> int:
        """The largest batch, up to `limit` frames, expected to take no longer than `seconds`."""
        return next((n for n in range(limit, 0, -1) if self.predict(n) <= seconds), 0)


class Scheduler:
    """Runs the streams' frames in batches on its own thread, one tick every
    10 ms on an absolute clock. A tick that ends after its deadline counts as
    missed; the next one then starts at once."""

    def __init__(self, models: ModelSet, metrics: Optional[Metrics] = None, tick_seconds: float = TICK_SECONDS,
                 workers: int = 1, clock: Callable[[], float] = time.monotonic):
        self.models = models
        self.clock = clock
        self.cost = BatchCost()
        self.workers = max(1, workers)
        self._pool = concurrent.futures.ThreadPoolExecutor(self.workers - 1) if self.workers > 1 else None
        self.metrics = metrics or Metrics()
        self.tick_seconds = tick_seconds
        self._streams: list = []
        self._lock = threading.Lock()          # guards the stream list only, never held over a tick
        self._stop = threading.Event()
        self._thread: Optional[threading.Thread] = None
        self.error: Optional[BaseException] = None

    @property
    def stream_count(self) -> int:
        return len(self._streams)

    def add(self, stream: Stream):
        with self._lock:
            self._streams = self._streams + [stream]

    def remove(self, stream: Stream):
        """Forget a stream; a tick already running may still deliver to it."""
        with self._lock:
            self._streams = [s for s in self._streams if s is not stream]

    def start(self):
        # Between its batch calls the scheduler needs the interpreter lock
        # back from the event loop at once, not after the default 5 ms.
        sys.setswitchinterval(SWITCH_INTERVAL)
        self._thread = threading.Thread(target=self._run, name="corvina-scheduler", daemon=True)
        self._thread.start()

    def stop(self):
        self._stop.set()
        if self._thread is not None:
            self._thread.join()

    def _run(self):
        deadline = self.clock() + self.tick_seconds
        try:
            while not self._stop.is_set():
                start, cpu = self.clock(), time.thread_time()
                frames = self.tick(deadline)
                end = self.clock()
                missed = end > deadline
                self.metrics.record_tick(end - start, frames, missed, time.thread_time() - cpu)
                if missed:
                    deadline = end + self.tick_seconds
                else:
                    self._stop.wait(deadline - end)
                    deadline += self.tick_seconds
        except BaseException as e:             # noted for /health; the server reports it
            self.error = e
            raise

    def tick(self, deadline: float = math.inf) -> int:
        """One frame of every stream that has one through the chain. Then the
        streams that were already behind when the tick began (after a late
        tick, or from a bursty client) catch up: batches of their next frames,
        the furthest behind first, as many as the time left before `deadline`
        holds by what batches have cost so far. A stream behind thus drains
        its backlog over the next ticks instead of keeping the extra latency
        for good. Returns how many frames ran."""
        waiting = [(s, len(s.queue)) for s in self._streams if s.queue]
        ran = self._timed_batch([s for s, _ in waiting])
        behind = {s: n - 1 for s, n in waiting if n > 1}
        while behind:
            most = self.cost.most_within(deadline - self.clock(), len(behind))
            if not most:
                break
            batch = sorted(behind, key=behind.get, reverse=True)[:most]     # stable: ties keep their order
            ran += self._timed_batch(batch)
            for stream in batch:
                behind[stream] -= 1
                if not behind[stream]:
                    del behind[stream]
        return ran

    def _timed_batch(self, streams) -> int:
        start = self.clock()
        ran = self._run_batch(streams)
        if ran:
            self.cost.record(ran, self.clock() - start)
        return ran

    def _compute(self, streams, frames):
        m = self.models
        x = np.stack([f.samples for f in frames])
        contexts = [s.converter.contexts for s in streams]
        features = m.phone.batch(x, [c[0] for c in contexts])
        bins, pitch_features = m.pitch.batch(x, [c[1] for c in contexts])
        bins = shift_bins_by(bins, np.array([f.shift_bins for f in frames]))
        rows = np.concatenate([f.speaker_row for f in frames])
        out = m.waveform.batch(features, bins, pitch_features, rows, [c[2] for c in contexts])
        for stream, frame, samples in zip(streams, frames, out):
            stream.converter.frames += 1
            stream.deliver(samples[:OUT_HOP - frame.cut], frame.last)

    def _run_batch(self, candidates) -> int:
        streams, frames = [], []
        for stream in candidates:
            frame = stream.queue.popleft()
            if frame.samples is None:
                stream.deliver(np.zeros(0, np.float32), True)
            else:
                streams.append(stream)
                frames.append(frame)
        if not streams:
            return 0
        # Wide batches are split over the worker threads: the batch calls
        # release the interpreter lock, so the parts run on separate cores.
        parts = min(self.workers, len(streams) // MIN_PART)
        bounds = np.linspace(0, len(streams), max(parts, 1) + 1).astype(int)
        pieces = [(streams[a:b], frames[a:b]) for a, b in zip(bounds[:-1], bounds[1:])]
        helpers = [self._pool.submit(self._compute, *piece) for piece in pieces[1:]]
        self._compute(*pieces[0])
        for helper in helpers:
            helper.result()
        return len(frames)
