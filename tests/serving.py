"""A `corvina serve` app on a loopback port in a thread, and a blocking
client for the tests."""
import contextlib
import json
import threading
import time

import numpy as np
import pytest

pytest.importorskip("starlette", reason="the server needs corvina[serve]")
uvicorn = pytest.importorskip("uvicorn", reason="the server needs corvina[serve]")
from websockets.sync.client import connect  # noqa: E402

from corvina_tools.server.app import ServerState, create_app  # noqa: E402
from corvina_tools.server.protocol import FORMATS, Limits  # noqa: E402


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
