"""`corvina live` without an audio device: the rings, the callback logic
driven by hand, and the whole session against a fake device library."""
import importlib
import threading
import time
import types

import numpy as np
import pytest

from corvina_tools import Converter, live
from corvina_tools.live import LiveError, LiveLoop, run_live
from corvina_tools.speech import speech_like
from signals import StretchChain

MODELS = types.SimpleNamespace(speakers=np.zeros((1, 256), np.float32))


def make_converter(in_rate=16000, out_rate=24000):
    return Converter(MODELS, in_rate, out_rate, chain=StretchChain())


def tick(loop, block, step=True):
    loop.input_callback(block.reshape(-1, 1), len(block), None, None)
    if step:
        loop.step()
    out = np.full((240, 2), np.nan, np.float32)
    loop.output_callback(out, 240, None, None)
    return out


def test_callbacks_play_the_converted_stream_after_the_cushion():
    x = speech_like(1.0, 16000, seed=1)
    loop = LiveLoop(make_converter(), ring_seconds=0.0537)     # small rings, wrapped mid-block many times
    played = np.stack([tick(loop, block) for block in x.reshape(-1, 160)])
    silent = int(np.argmax(played[:, :, 0].any(axis=1)))
    assert silent == 2                      # 20 ms cushion plus the block being played
    assert not played[:silent].any()
    offline = make_converter()
    expected = offline.process(x)
    heard = played[silent:, :, 0].ravel()
    np.testing.assert_array_equal(heard, expected[:len(heard)])
    np.testing.assert_array_equal(played[:, :, 1], played[:, :, 0])      # every channel gets the voice
    assert (loop.underruns, loop.dropped_input, loop.dropped_output, loop.device_errors) == (0, 0, 0, 0)


def test_starved_output_underruns_and_a_full_input_ring_drops():
    x = speech_like(1.0, 16000, seed=2).reshape(-1, 160)
    loop = LiveLoop(make_converter())
    for k, block in enumerate(x):
        tick(loop, block, step=not 10 <= k < 16)       # the worker falls behind for 60 ms
    assert loop.underruns == 1 and loop.mean_queue_seconds > 0
    assert tick(loop, x[0]).any()                        # refilled and playing again
    small = LiveLoop(make_converter(), ring_seconds=0.01)
    small.input_callback(np.ones((160, 1), np.float32), 160, None, None)
    small.input_callback(np.ones((100, 1), np.float32), 100, None, "input overflow")
    assert (small.dropped_input, small.device_errors) == (100, 1)


class FakeStream:
    """A device stream that calls its callback from a thread at the pace of
    its block size: a 200 Hz tone in, what comes out kept in `played`."""

    def __init__(self, kind, played, samplerate, blocksize, callback, **settings):
        self.kind, self.played, self.rate, self.block, self.callback = kind, played, samplerate, blocksize, callback
        self.latency, self._stop = 0.004, threading.Event()

    def _run(self):
        for start in range(0, 10**9, self.block):
            if self._stop.is_set():
                return
            if self.kind == "input":
                t = np.arange(start, start + self.block) / self.rate
                self.callback((0.2 * np.sin(2 * np.pi * 200 * t)).astype(np.float32)[:, None], self.block, None, None)
            else:
                out = np.zeros((self.block, 1), np.float32)
                self.callback(out, self.block, None, None)
                self.played.append(out)
            time.sleep(self.block / self.rate)

    def __enter__(self):
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()
        return self

    def __exit__(self, *exc):
        self._stop.set()
        self._thread.join()


class FakeDevices:
    """The parts of the device library that `run_live` uses."""

    class PortAudioError(Exception):
        pass

    def __init__(self, devices, rates=(16000, 24000, 48000)):
        self.devices, self.rates, self.played, self.opened = devices, rates, [], []
        self.default = types.SimpleNamespace(device=[0, 1])

    def InputStream(self, **settings):
        self.opened.append(("input", settings["device"]))
        return FakeStream("input", self.played, **settings)

    def OutputStream(self, **settings):
        self.opened.append(("output", settings["device"]))
        return FakeStream("output", self.played, **settings)

    def query_devices(self, device=None, kind=None):
        if kind is None:
            return self.devices
        return self.devices[self.default.device[kind == "output"] if device is None else device]

    def check_input_settings(self, samplerate, **settings):
        if samplerate not in self.rates:
            raise self.PortAudioError("Invalid sample rate")

    check_output_settings = check_input_settings


DEVICES = [dict(name=name, max_input_channels=i, max_output_channels=o, default_samplerate=rate)
           for name, i, o, rate in [("Built-in Microphone", 2, 0, 48000), ("Built-in Speakers", 0, 2, 48000),
                                    ("USB Headset", 1, 2, 44100)]]


def test_sessions_with_a_fake_device():
    sd, lines, rates = FakeDevices(DEVICES), [], []

    def factory(in_rate, out_rate):
        rates.append((in_rate, out_rate))
        return make_converter(in_rate, out_rate)

    loop = run_live(factory, sd, seconds=0.4, report=lines.append)
    assert rates == [(16000, 24000)]                     # the device takes the model's rates
    assert loop.converter.frames > 10 and np.concatenate(sd.played).any()
    assert lines[-2].startswith("latency") and lines[-1].startswith("underruns")
    # Devices by name and by index; rates they do not take fall back to theirs.
    sd = FakeDevices(DEVICES, rates=(44100, 48000))
    run_live(factory, sd, input_device="usb", output_device="2", seconds=0.05, report=lines.append)
    assert rates[-1] == (44100, 44100) and sd.opened == [("input", 2), ("output", 2)]
    for wanted, kind, message in [("Speakers", "input", "no input devices match"),
                                  ("0", "output", "not an audio output device")]:
        with pytest.raises(LiveError, match=message):
            live.choose_device(sd, wanted, kind)


def test_no_device_and_no_audio_library_are_clear_errors(monkeypatch):
    with pytest.raises(LiveError, match="no audio devices found"):
        run_live(make_converter, FakeDevices([]))
    sd = FakeDevices(DEVICES)
    sd.default.device = [-1, 1]
    with pytest.raises(LiveError, match="no default audio input device"):
        run_live(make_converter, sd)

    def without_portaudio(name):        # what importing the device library then does
        raise OSError("PortAudio library not found")

    monkeypatch.setattr(importlib, "import_module", without_portaudio)
    with pytest.raises(LiveError, match="Install the PortAudio library"):
        live.import_sounddevice()
