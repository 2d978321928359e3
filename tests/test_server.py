"""`corvina serve`: streams batched by the scheduler come out bit for bit as
the offline converter makes them; files over HTTP; health and metrics. The
server runs on a loopback port in a thread; the helpers here are a blocking
client for the server tests."""
import contextlib
import io
import json
import threading
import time
import urllib.request

import numpy as np
import pytest
import soundfile as sf

pytest.importorskip("starlette", reason="the server needs corvina[serve]")
uvicorn = pytest.importorskip("uvicorn", reason="the server needs corvina[serve]")
from websockets.sync.client import connect  # noqa: E402

from corvina_tools import Converter  # noqa: E402
from corvina_tools.server.app import ServerState, create_app  # noqa: E402
from corvina_tools.server.protocol import FORMATS, Limits  # noqa: E402
from corvina_tools.speech import speech_like  # noqa: E402
from signals import in_threads  # noqa: E402

SEED = 16


@contextlib.contextmanager
def running_server(models, **state_options):
    limits = state_options.get("limits", Limits())
    state = ServerState(models, **state_options)
    config = uvicorn.Config(create_app(state), host="127.0.0.1", port=0, log_level="warning",
                            ws_max_size=limits.max_message_bytes)
    server = uvicorn.Server(config)
    thread = threading.Thread(target=server.run, daemon=True)
    thread.start()
    while not server.started:
        if not thread.is_alive():
            raise RuntimeError("the test server did not start")
        time.sleep(0.01)
    port = server.servers[0].sockets[0].getsockname()[1]
    try:
        yield f"127.0.0.1:{port}", state
    finally:
        server.should_exit = True
        thread.join()


def stream_blocks(address, start, blocks, controls=(), fmt="f32le", headers=None, pace=0.0, on_ready=None):
    """Send `start`, then (after `on_ready()` returns, if given) the blocks,
    with {index: control} sent before the block at that index, then "end";
    returns the converted samples in the stream's format, and the text
    messages."""
    dtype = FORMATS[fmt]
    controls = dict(controls)
    with connect(f"ws://{address}/stream", additional_headers=headers, max_size=None) as ws:
        ws.send(json.dumps(start))
        ready = json.loads(ws.recv())
        assert ready["type"] == "ready", ready
        if on_ready is not None:
            on_ready()
        for i, block in enumerate(blocks):
            if i in controls:
                ws.send(json.dumps(dict(type="control", **controls[i])))
            ws.send(np.asarray(block, dtype).tobytes())
            time.sleep(pace)
        ws.send(json.dumps({"type": "end"}))
        out, texts = [], [ready]
        for message in ws:
            if isinstance(message, bytes):
                out.append(np.frombuffer(message, dtype))
            else:
                texts.append(json.loads(message))
    return (np.concatenate(out) if out else np.zeros(0, dtype)), texts


def close_reason(address, messages, headers=None):
    """Send the messages (text or bytes) and read until the server closes;
    returns its close code and reason (None, "" if it never did)."""
    from websockets.exceptions import ConnectionClosed
    with connect(f"ws://{address}/stream", additional_headers=headers, max_size=None) as ws:
        try:
            for message in messages:
                ws.send(message)
            while True:
                ws.recv(timeout=10)
        except ConnectionClosed as closed:
            return (closed.rcvd.code, closed.rcvd.reason) if closed.rcvd else (None, "")
        except TimeoutError:
            return None, ""


# Each case: rates, format, opening voice, block sizes, and a control message
# sent before block 5.
CASES = [
    dict(input_rate=16000, output_rate=24000, format="f32le", speaker=0, pitch=0.0, block=160,
         control={"speaker": 2, "pitch": -3.5}),
    dict(input_rate=48000, output_rate=48000, format="s16le", speaker={"0": 0.7, "2": 0.3}, pitch=4.0, block=1111,
         control={"pitch": 0}),
    dict(input_rate=44100, output_rate=22050, format="f32le", speaker=[1, 1, 2], pitch=-12.0, block=97,
         control={"speaker": 1}),
    dict(input_rate=8000, output_rate=16000, format="s16le", speaker=1, pitch=0.0, block=3000,
         control={"speaker": {"2": 1}, "pitch": 24}),
]


def offline(models, case, blocks):
    """The same stream through corvina_tools.Converter, settings changed
    between the same blocks; s16le output quantised as the server does."""
    converter = Converter(models, case["input_rate"], case["output_rate"], quality="LQ",
                          speaker=_speaker(case["speaker"]), pitch_shift=case["pitch"])
    out = []
    for i, block in enumerate(blocks):
        if i == 5:
            control = case["control"]
            if "speaker" in control:
                converter.speaker = _speaker(control["speaker"])
            if "pitch" in control:
                converter.pitch_shift = control["pitch"]
        out.append(converter.process(block))
    out = np.concatenate(out + [converter.flush()])
    if case["format"] == "s16le":
        out = np.clip(np.round(out * 32768.0), -32768, 32767).astype(np.int16)
    return out


def _speaker(value):
    return {int(k): v for k, v in value.items()} if isinstance(value, dict) else value


def blocks_of(case, seed):
    x = speech_like(0.6, case["input_rate"], seed=seed)
    if case["format"] == "s16le":
        x = np.round(x * 20000).astype(np.int16)
    return [x[i:i + case["block"]] for i in range(0, len(x), case["block"])]


def stream_case(address, k, case, seconds=0.0, on_ready=None):
    """Stream case k through the server, spread over `seconds`."""
    blocks = blocks_of(case, SEED + k)
    start = dict(type="start", **{key: case[key] for key in ("input_rate", "output_rate", "format", "speaker", "pitch")})
    return stream_blocks(address, start, blocks, {5: case["control"]}, case["format"], pace=seconds / len(blocks),
                         on_ready=on_ready)


def assert_offline(models, k, case, result):
    got, texts = result
    expected = offline(models, case, blocks_of(case, SEED + k))
    assert texts[0]["type"] == "ready" and texts[-1]["type"] == "done", texts
    assert got.dtype == expected.dtype and len(got) == len(expected), f"seed {SEED}, case {k}"
    np.testing.assert_array_equal(got, expected, err_msg=f"seed {SEED}, case {k}: {case}")


def test_concurrent_streams_match_the_offline_converter(models):
    with running_server(models) as (address, state):
        results = in_threads(len(CASES), lambda k: stream_case(address, k, CASES[k]))
    for k, case in enumerate(CASES):
        assert_offline(models, k, case, results[k])
    assert state.metrics.largest_batch > 1, "the streams never shared a tick"


def test_a_file_over_http_is_the_converted_file(models, tmp_path):
    from corvina_tools.convert_files import convert_file
    x = speech_like(0.5, 22050, seed=SEED)
    source = tmp_path / "in.flac"
    sf.write(source, x, 22050)
    convert_file(models, str(source), str(tmp_path / "out.wav"), rate=32000, subtype="FLOAT", speaker={0: 0.5, 1: 0.5},
                 pitch_shift=2.0, quality="LQ")
    expected, _ = sf.read(tmp_path / "out.wav", dtype="float32")
    with running_server(models) as (address, _):
        request = urllib.request.Request(f"http://{address}/convert?speaker=0:0.5,1:0.5&pitch=2&rate=32000",
                                         data=source.read_bytes(), method="POST")
        with urllib.request.urlopen(request) as response:
            got, rate = sf.read(io.BytesIO(response.read()), dtype="float32")
        assert rate == 32000
        np.testing.assert_array_equal(got, expected)
        for query, data, says in [("speaker=7", source.read_bytes(), b""), ("rate=5", source.read_bytes(), b""),
                                  ("format=mp9", source.read_bytes(), b""), ("pitch=x", source.read_bytes(), b""),
                                  ("", b"not audio at all", b"cannot read")]:
            with pytest.raises(urllib.error.HTTPError) as refused:
                urllib.request.urlopen(urllib.request.Request(f"http://{address}/convert?{query}", data=data))
            assert refused.value.code == 400 and says in refused.value.read(), query


def test_health_and_metrics_report_the_streams(models):
    with running_server(models) as (address, _):
        stream_blocks(address, {"type": "start"}, [np.zeros(1600, np.float32)])
        with urllib.request.urlopen(f"http://{address}/health") as response:
            health = json.load(response)
        with urllib.request.urlopen(f"http://{address}/metrics") as response:
            text = response.read().decode()
    assert health["status"] == "ok" and health["streams"] == 0 and health["speakers"] == 3
    samples = dict(line.rsplit(" ", 1) for line in text.splitlines() if not line.startswith("#"))
    assert samples["corvina_streams_total"] == "1" and samples["corvina_frames_total"] == "10"
    assert 'corvina_tick_seconds{quantile="0.99"}' in samples
