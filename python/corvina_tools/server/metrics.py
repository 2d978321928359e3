"""The server's counters, and their Prometheus text form."""
import collections
import threading

TICK_WINDOW = 6000                 # the last minute of ticks, for the percentiles
QUANTILES = (0.5, 0.9, 0.99, 1.0)


class Metrics:
    """Counters written by the scheduler thread and the event loop. Each
    writer updates its own fields; the tick window takes a lock because
    /metrics reads it whole."""

    def __init__(self):
        self.streams = 0                    # open streams (set by the app)
        self.streams_total = 0
        self.frames = 0
        self.ticks = 0
        self.missed_ticks = 0
        self.largest_batch = 0
        self.rejected = collections.Counter()     # reason -> connections refused
        self.closed = collections.Counter()       # reason -> streams ended by the server
        self.files = 0
        self._tick_seconds = collections.deque(maxlen=TICK_WINDOW)     # only ticks that ran frames
        self._tick_cpu_seconds = collections.deque(maxlen=TICK_WINDOW)
        self._lock = threading.Lock()

    def record_tick(self, seconds: float, frames: int, missed: bool, cpu_seconds: float = 0.0):
        self.ticks += 1
        self.frames += frames
        self.missed_ticks += missed
        self.largest_batch = max(self.largest_batch, frames)
        if frames:
            with self._lock:
                self._tick_seconds.append(seconds)
                self._tick_cpu_seconds.append(cpu_seconds)

    def tick_quantiles(self, cpu=False):
        """{quantile: seconds} over the recent ticks that ran frames: wall
        time, or the scheduler thread's CPU time (less than the wall time by
        what other processes took from it)."""
        with self._lock:
            ticks = sorted(self._tick_cpu_seconds if cpu else self._tick_seconds)
        if not ticks:
            return {}
        return {q: ticks[min(len(ticks) - 1, int(q * len(ticks)))] for q in QUANTILES}

    def prometheus(self) -> str:
        lines = []

        def metric(name, kind, help_text, samples):
            lines.append(f"# HELP corvina_{name} {help_text}")
            lines.append(f"# TYPE corvina_{name} {kind}")
            for labels, value in samples:
                lines.append(f"corvina_{name}{labels} {value}")

        metric("streams", "gauge", "Streams open now.", [("", self.streams)])
        metric("streams_total", "counter", "Streams opened.", [("", self.streams_total)])
        metric("frames_total", "counter", "10 ms frames converted.", [("", self.frames)])
        metric("ticks_total", "counter", "Scheduler ticks.", [("", self.ticks)])
        metric("missed_ticks_total", "counter", "Ticks that ended after their 10 ms deadline.",
               [("", self.missed_ticks)])
        metric("largest_batch", "gauge", "The most streams one tick has run.", [("", self.largest_batch)])
        metric("tick_seconds", "summary", "Time a tick that ran frames took (recent ticks).",
               [(f'{{quantile="{q}"}}', f"{v:.6f}") for q, v in self.tick_quantiles().items()])
        metric("tick_cpu_seconds", "summary", "CPU time of the scheduler thread in a tick that ran frames.",
               [(f'{{quantile="{q}"}}', f"{v:.6f}") for q, v in self.tick_quantiles(cpu=True).items()])
        metric("rejected_connections_total", "counter", "Connections refused, by reason.",
               [(f'{{reason="{r}"}}', n) for r, n in sorted(self.rejected.items())] or [("", 0)])
        metric("closed_streams_total", "counter", "Streams the server ended for bad input, by reason.",
               [(f'{{reason="{r}"}}', n) for r, n in sorted(self.closed.items())] or [("", 0)])
        metric("files_total", "counter", "Files converted over HTTP.", [("", self.files)])
        return "\n".join(lines) + "\n"
