"""Microphone to speakers. The audio callbacks only move samples between
the device and two rings; a worker thread converts. Each ring has one writer
and one reader, each of which advances only its own index, so neither side
takes a lock (the interpreter lock makes each index update atomic)."""
import importlib
import sys
import threading
import time

import numpy as np

from .converter import IN_RATE, OUT_RATE


class SampleRing:
    """Single-producer, single-consumer ring of float32 samples."""

    def __init__(self, capacity):
        self._data = np.zeros(capacity, np.float32)
        self._read = 0          # advanced by the reader only
        self._write = 0         # advanced by the writer only

    @property
    def available(self):
        return self._write - self._read

    @property
    def space(self):
        return len(self._data) - self.available

    def write(self, x):
        """Store as much of x as fits; returns the count stored."""
        n = min(len(x), self.space)
        start = self._write % len(self._data)
        first = min(n, len(self._data) - start)
        self._data[start:start + first] = x[:first]
        self._data[:n - first] = x[first:n]
        self._write += n
        return n

    def read_into(self, out):
        """Fill out from the ring as far as it holds; returns the count read."""
        n = min(len(out), self.available)
        start = self._read % len(self._data)
        first = min(n, len(self._data) - start)
        out[:first] = self._data[start:start + first]
        out[first:n] = self._data[:n - first]
        self._read += n
        return n


class LiveLoop:
    """The real-time part of `corvina live`, independent of the audio library.

    input_callback / output_callback follow the device-callback shape
    (data, frames, time, status). The output starts, and restarts after an
    underrun, once `cushion` samples are queued.
    """

    def __init__(self, converter, cushion_seconds=0.02, ring_seconds=2.0):
        self.converter = converter
        self.input_ring = SampleRing(int(converter.input_rate * ring_seconds))
        self.output_ring = SampleRing(int(converter.output_rate * ring_seconds))
        self.cushion = int(cushion_seconds * converter.output_rate)
        self.underruns = 0            # output found the queue empty while playing
        self.dropped_input = 0        # input samples lost to a full ring
        self.device_errors = 0        # callbacks that reported a device under/overflow
        self.dropped_output = 0       # converted samples lost to a full ring
        self.error = None             # what stopped the worker, if anything
        self._playing = False
        self._queued_total = 0        # output queue seen by the callbacks, summed
        self._queued_count = 0
        self._wake = threading.Event()
        self._scratch = np.zeros(0, np.float32)

    def input_callback(self, indata, frames, time_info, status):
        if status:
            self.device_errors += 1
        self.dropped_input += frames - self.input_ring.write(indata[:, 0])
        self._wake.set()

    def output_callback(self, outdata, frames, time_info, status):
        if status:
            self.device_errors += 1
        queued = self.output_ring.available
        if not self._playing and queued >= self.cushion + frames:
            self._playing = True
        if not self._playing:
            outdata.fill(0)
            return
        self._queued_total += queued
        self._queued_count += 1
        got = self.output_ring.read_into(outdata[:, 0])
        if got < frames:
            outdata[got:, 0] = 0
            self.underruns += 1
            self._playing = False
        if outdata.shape[1] > 1:
            outdata[:, 1:] = outdata[:, :1]

    def step(self):
        """Convert whatever input has arrived; returns the samples converted."""
        n = self.input_ring.available
        if n == 0:
            return 0
        if len(self._scratch) < n:
            self._scratch = np.zeros(max(n, 2 * len(self._scratch)), np.float32)
        block = self._scratch[:self.input_ring.read_into(self._scratch[:n])]
        out = self.converter.process(block)
        self.dropped_output += len(out) - self.output_ring.write(out)
        return n

    def run_worker(self, stop):
        try:
            while not stop.is_set():
                self._wake.wait(0.05)
                self._wake.clear()
                self.step()
        except Exception as e:        # reported by the thread that started us
            self.error = e
            stop.set()

    @property
    def mean_queue_seconds(self):
        if not self._queued_count:
            return 0.0
        return self._queued_total / self._queued_count / self.converter.output_rate


def choose_device(sd, wanted, kind):
    """A device index from an index or a name fragment; None for the default."""
    if wanted is None:
        default = sd.default.device[0 if kind == "input" else 1]
        if default is None or default < 0:
            raise LiveError(f"no default audio {kind} device; pick one with --{kind} (see --list-devices)")
        return None
    devices = sd.query_devices()
    channels = "max_input_channels" if kind == "input" else "max_output_channels"
    fitting = [i for i, d in enumerate(devices) if d[channels] > 0]
    if str(wanted).isdigit():
        if int(wanted) not in fitting:
            raise LiveError(f"device {wanted} is not an audio {kind} device (see --list-devices)")
        return int(wanted)
    matches = [i for i in fitting if str(wanted).lower() in devices[i]["name"].lower()]
    if len(matches) != 1:
        if not matches:
            raise LiveError(f"no {kind} devices match {wanted!r} (see --list-devices)")
        names = ", ".join(f"{i}: {devices[i]['name']}" for i in matches)
        raise LiveError(f"several {kind} devices match {wanted!r} ({names}); give the index")
    return matches[0]


class LiveError(Exception):
    """A reason live conversion cannot start."""


def import_sounddevice():
    try:
        sounddevice = importlib.import_module("sounddevice")
    except OSError as e:
        raise LiveError(f"audio is not available: {e}. Install the PortAudio library "
                        "(for example the libportaudio2 package) and try again.") from None
    except ImportError as e:
        raise LiveError(f"audio is not available: {e}. Install the live extra: "
                        "pip install 'corvina[live]'.") from None
    return sounddevice


def device_rate(sd, device, kind, preferred):
    """The model's own rate when the device takes it (no resampling), else
    the device's default rate."""
    check = sd.check_input_settings if kind == "input" else sd.check_output_settings
    try:
        check(device=device, channels=1, samplerate=preferred, dtype="float32")
        return preferred
    except Exception:
        return int(sd.query_devices(device, kind)["default_samplerate"])


def run_live(make_converter, sd, input_device=None, output_device=None, seconds=None, block_seconds=0.01,
             report=print, stop=None):
    """Open the devices and convert until stopped (Ctrl+C, `seconds`, or the
    `stop` event). make_converter(input_rate, output_rate) builds the
    converter. Returns the LiveLoop with its counters."""
    try:
        if len(sd.query_devices()) == 0:
            raise LiveError("no audio devices found")
        inp = choose_device(sd, input_device, "input")
        out = choose_device(sd, output_device, "output")
        in_rate = device_rate(sd, inp, "input", IN_RATE)
        out_rate = device_rate(sd, out, "output", OUT_RATE)
    except sd.PortAudioError as e:
        raise LiveError(f"audio device error: {e}") from None
    loop = LiveLoop(make_converter(in_rate, out_rate))
    stop = stop or threading.Event()
    worker = threading.Thread(target=loop.run_worker, args=(stop,), daemon=True)
    # A frame holds the interpreter lock for a few ms; switch often so the
    # audio callbacks are not kept waiting.
    previous_interval = sys.getswitchinterval()
    sys.setswitchinterval(0.001)
    try:
        with sd.InputStream(device=inp, channels=1, samplerate=in_rate, dtype="float32",
                            blocksize=int(in_rate * block_seconds), latency="low",
                            callback=loop.input_callback) as istream, \
             sd.OutputStream(device=out, channels=1, samplerate=out_rate, dtype="float32",
                             blocksize=int(out_rate * block_seconds), latency="low",
                             callback=loop.output_callback) as ostream:
            worker.start()
            report(f"live: input {in_rate} Hz, output {out_rate} Hz; Ctrl+C stops")
            started = time.monotonic()
            try:
                while not stop.is_set() and (seconds is None or time.monotonic() - started < seconds):
                    stop.wait(0.1)
            except KeyboardInterrupt:
                pass
            device_latency = _seconds(istream.latency) + _seconds(ostream.latency)
    except sd.PortAudioError as e:
        raise LiveError(f"audio device error: {e}") from None
    finally:
        stop.set()
        sys.setswitchinterval(previous_interval)
        if worker.is_alive():
            worker.join()
    if loop.error is not None:
        raise loop.error
    total = device_latency + loop.converter.latency.seconds + loop.mean_queue_seconds
    report(f"latency {total * 1000:.1f} ms = devices {device_latency * 1000:.1f} ms (reported by PortAudio)"
           f" + conversion {loop.converter.latency.seconds * 1000:.1f} ms"
           f" + queue {loop.mean_queue_seconds * 1000:.1f} ms (measured mean)")
    report(f"underruns {loop.underruns}, dropped samples {loop.dropped_input} in / {loop.dropped_output} out, "
           f"device xruns {loop.device_errors}, frames {loop.converter.frames}")
    return loop


def _seconds(latency):
    return float(latency[0] if isinstance(latency, (tuple, list)) else latency)
