"""The streaming protocol, apart from any web framework.

The client opens with a JSON text message

    {"type": "start", "input_rate": 48000, "output_rate": 48000,
     "format": "f32le" | "s16le", "speaker": 0 | {"0": 0.7, "1": 0.3} | [w, ...],
     "pitch": 0.0}

(every field but "type" optional), gets {"type": "ready", ...} back, then
sends binary blocks of mono samples of any length and receives converted
blocks in the same format as soon as they exist. {"type": "control",
"speaker": ..., "pitch": ...} changes the voice from the next frame on;
{"type": "end"} flushes the tail, after which the server sends
{"type": "done", "frames": n} and closes. Anything else closes the
connection with one of the codes below and a reason that says what was wrong.
"""
import json
import math
from dataclasses import dataclass

import numpy as np

from ..converter import IN_RATE, OUT_RATE

FORMATS = {"f32le": np.dtype("<f4"), "s16le": np.dtype("<i2")}

# WebSocket close codes
NORMAL = 1000
GOING_AWAY = 1001
UNSUPPORTED = 1003        # a binary block before "start", or an unknown format
INVALID = 1007            # malformed JSON, bad values, samples cut in half
POLICY = 1008             # no or wrong token, too fast, not reading
TOO_BIG = 1009
INTERNAL = 1011
TRY_LATER = 1013          # the server holds its maximum of streams


@dataclass(frozen=True)
class Limits:
    max_streams: int = 16
    max_message_bytes: int = 256 * 1024
    min_rate: int = 8000
    max_rate: int = 192000
    max_pitch: float = 24.0                  # semitones either way
    max_backlog_seconds: float = 2.0         # audio queued for the scheduler before "too fast"
    max_unsent_blocks: int = 200             # converted blocks a client has not taken (about 2 s)
    max_upload_bytes: int = 64 * 1024 * 1024
    start_timeout_seconds: float = 10.0      # a connection holds a stream's place only so long without "start"


class ProtocolError(Exception):
    """Ends one connection: a close code and a reason for the client."""

    def __init__(self, code: int, reason: str):
        super().__init__(reason)
        self.code, self.reason = code, reason[:120]      # a close reason holds 123 bytes


@dataclass
class StreamSettings:
    input_rate: int = IN_RATE
    output_rate: int = OUT_RATE
    format: str = "f32le"
    speaker: object = 0
    pitch: float = 0.0


def parse_message(text: str, limits: Limits) -> dict:
    if len(text) > limits.max_message_bytes:
        raise ProtocolError(TOO_BIG, f"message of {len(text)} bytes; the limit is {limits.max_message_bytes}")
    try:
        message = json.loads(text)
    except ValueError as e:
        raise ProtocolError(INVALID, f"malformed JSON: {e}") from None
    if not isinstance(message, dict) or not isinstance(message.get("type"), str):
        raise ProtocolError(INVALID, 'a text message must be a JSON object with a "type"')
    return message


def parse_start(message: dict, limits: Limits, n_speakers: int) -> StreamSettings:
    if message["type"] != "start":
        raise ProtocolError(INVALID, f'the first message must be "start", not {message["type"]!r}')
    unknown = set(message) - {"type", "input_rate", "output_rate", "format", "speaker", "pitch", "token"}
    if unknown:
        raise ProtocolError(INVALID, f"unknown start field {sorted(unknown)[0]!r}")
    settings = StreamSettings()
    for name in ("input_rate", "output_rate"):
        if name in message:
            setattr(settings, name, _rate(name, message[name], limits))
    if "format" in message:
        if message["format"] not in FORMATS:
            raise ProtocolError(UNSUPPORTED, f"format {str(message['format'])[:20]!r}: use f32le or s16le")
        settings.format = message["format"]
    _controls(message, settings, limits, n_speakers)
    return settings


def parse_control(message: dict, settings: StreamSettings, limits: Limits, n_speakers: int):
    """Apply a "control" message to `settings`; other types are refused."""
    if message["type"] != "control":
        raise ProtocolError(INVALID, f"unknown message type {message['type'][:20]!r}")
    unknown = set(message) - {"type", "speaker", "pitch"}
    if unknown:
        raise ProtocolError(INVALID, f"unknown control field {sorted(unknown)[0]!r}")
    _controls(message, settings, limits, n_speakers)


def _rate(name, value, limits):
    if isinstance(value, bool) or not isinstance(value, int) or not limits.min_rate <= value <= limits.max_rate:
        raise ProtocolError(INVALID, f"{name} must be a whole number of Hz from {limits.min_rate} "
                                     f"to {limits.max_rate}, not {str(value)[:20]}")
    return value


def _controls(message, settings, limits, n_speakers):
    if "pitch" in message:
        pitch = message["pitch"]
        if isinstance(pitch, bool) or not isinstance(pitch, (int, float)) or not math.isfinite(pitch) \
                or abs(pitch) > limits.max_pitch:
            raise ProtocolError(INVALID, f"pitch must be a number of semitones within ±{limits.max_pitch:g}, "
                                         f"not {str(pitch)[:20]}")
        settings.pitch = float(pitch)
    if "speaker" in message:
        settings.speaker = _speaker(message["speaker"], n_speakers)


def _speaker(value, n_speakers):
    """An index, {row: weight} with string keys (JSON), or one weight per row;
    the weights are checked again by the converter."""
    bad = ProtocolError(INVALID, f"speaker must be a row from 0 to {n_speakers - 1}, "
                                 f"{{row: weight}} or {n_speakers} weights")
    if isinstance(value, bool):
        raise bad
    if isinstance(value, int):
        if not 0 <= value < n_speakers:
            raise bad
        return value
    if isinstance(value, dict) and 0 < len(value) <= n_speakers:
        try:
            mix = {int(k): v for k, v in value.items()}
        except ValueError:
            raise bad from None
        weights = list(mix.values())
    elif isinstance(value, list) and len(value) == n_speakers:
        mix = weights = value
    else:
        raise bad
    if not all(isinstance(w, (int, float)) and not isinstance(w, bool) for w in weights):
        raise bad
    return mix


def decode_block(data: bytes, settings: StreamSettings, limits: Limits) -> np.ndarray:
    if len(data) > limits.max_message_bytes:
        raise ProtocolError(TOO_BIG, f"block of {len(data)} bytes; the limit is {limits.max_message_bytes}")
    dtype = FORMATS[settings.format]
    if len(data) % dtype.itemsize:
        raise ProtocolError(INVALID, f"block of {len(data)} bytes is not whole {settings.format} samples")
    return np.frombuffer(data, dtype)


def encode_block(samples: np.ndarray, settings: StreamSettings) -> bytes:
    if settings.format == "s16le":
        return np.clip(np.round(samples * 32768.0), -32768, 32767).astype("<i2").tobytes()
    return samples.astype("<f4", copy=False).tobytes()
