"""Bad input and limits end the offending connection with a clear reason;
fuzzed traffic beside well-behaved streams leaves their output bit for bit."""
import contextlib
import json
import random
import socket
import time

import numpy as np
import pytest

from signals import in_threads
from test_server import (CASES, SEED, assert_offline, close_reason, connect, running_server, stream_blocks,
                         stream_case)
from corvina_tools.server.protocol import Limits

START = json.dumps({"type": "start"})
S16 = json.dumps({"type": "start", "format": "s16le"})
# Backlog and unsent-output limits as in use: well-behaved streams on a busy
# machine must not reach them.
LIMITS = Limits(max_streams=6, max_message_bytes=64 * 1024, start_timeout_seconds=1.0)

BAD = [  # messages, close code, words the reason holds
    ([b"\x00" * 640], 1003, "open with a JSON"),
    (["{type: start"], 1007, "malformed JSON"),
    (["[1, 2]"], 1007, 'JSON object with a "type"'),
    (['{"type": "control"}'], 1007, 'must be "start"'),
    (['{"type": "start", "format": "u8"}'], 1003, "use f32le or s16le"),
    (['{"type": "start", "input_rate": 1000000000}'], 1007, "input_rate must be a whole number"),
    (['{"type": "start", "output_rate": 44100.5}'], 1007, "output_rate must be a whole number"),
    (['{"type": "start", "input_rate": true}'], 1007, "input_rate"),
    (['{"type": "start", "pitch": NaN}'], 1007, "pitch must be a number"),
    (['{"type": "start", "pitch": 1e300}'], 1007, "pitch must be a number"),
    (['{"type": "start", "speaker": 3}'], 1007, "speaker must be a row from 0 to 2"),
    (['{"type": "start", "speaker": {"x": 1}}'], 1007, "speaker must be"),
    (['{"type": "start", "speaker": [-1, 0, 0]}'], 1007, "non-negative"),
    (['{"type": "start", "speaker": [0, 0, 0]}'], 1007, "not all zero"),
    (['{"type": "start", "volume": 11}'], 1007, "unknown start field 'volume'"),
    ([S16, b"\x01\x02\x03"], 1007, "3 bytes is not whole s16le samples"),
    ([START, b"\x00" * 6], 1007, "6 bytes is not whole f32le samples"),
    ([START, '{"type": "control", "pitch": -25}'], 1007, "within ±24"),
    ([START, '{"type": "control", "rate": 8000}'], 1007, "unknown control field 'rate'"),
    ([START, '{"type": "pause"}'], 1007, "unknown message type 'pause'"),
    ([START, b"\x00" * (64 * 1024 + 4)], 1009, ""),
    ([START] + [b"\x00" * 64000] * 3, 1008, "faster than real time"),
    ([], 1008, "no start message within 1 s"),
]


@pytest.fixture(scope="module")
def server(models):
    with running_server(models, limits=LIMITS) as running:
        yield running


@pytest.mark.parametrize("messages, code, reason", BAD, ids=[str(i) for i in range(len(BAD))])
def test_bad_input_closes_the_connection_with_its_reason(server, messages, code, reason):
    address, state = server
    got_code, got_reason = close_reason(address, messages)
    assert (got_code, reason in got_reason) == (code, True), got_reason
    assert state.scheduler.error is None


def test_a_token_is_required_when_set(models):
    with running_server(models, token="sesame") as (address, state):
        assert close_reason(address, [START]) == (1008, "missing or wrong token")
        assert close_reason(address, [START], {"Authorization": "Bearer sesam"})[0] == 1008
        ok = json.dumps({"type": "start", "token": "sesame"})
        assert close_reason(address, [ok, '{"type": "end"}']) == (1000, "end of stream")
        stream_blocks(address, {"type": "start"}, [np.zeros(160)], headers={"Authorization": "Bearer sesame"})
        assert state.metrics.rejected["token"] == 2


def test_streams_beyond_the_maximum_are_refused_and_counted(server):
    address, state = server
    before = state.metrics.rejected["full"]
    with contextlib.ExitStack() as held:
        for _ in range(LIMITS.max_streams):
            held.enter_context(connect(f"ws://{address}/stream")).send(START)
        time.sleep(0.2)
        code, reason = close_reason(address, [START])
        assert (code, reason) == (1013, "server full: 6 streams; try again later")
    assert state.metrics.rejected["full"] == before + 1
    time.sleep(0.2)
    assert close_reason(address, [START, '{"type": "end"}']) == (1000, "end of stream")


def test_a_client_that_stops_reading_is_closed(models):
    sock = socket.socket()
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)     # little room in the kernel
    with running_server(models, limits=Limits(max_unsent_blocks=20)) as (address, state):
        host, port = address.rsplit(":", 1)
        sock.connect((host, int(port)))
        with connect(f"ws://{address}/stream", sock=sock, max_queue=1) as ws:
            ws.send(json.dumps({"type": "start", "output_rate": 192000}))
            deadline = time.monotonic() + 20
            while not state.metrics.closed["policy"] and time.monotonic() < deadline:
                try:
                    ws.send(np.zeros(160, np.float32).tobytes())       # real time, never read
                except Exception:
                    break
                time.sleep(0.01)
            sock.close()
        assert state.metrics.closed["policy"] == 1, "the stream was not closed"


def fuzz_messages(rng):
    """A connection's worth of mostly wrong traffic."""
    start = {"type": "start"}
    for key, values in (("input_rate", [16000, 0, -1, 8000, 10**12, "16000", None]),
                        ("format", ["f32le", "s16le", "f64", 7]), ("pitch", [0, 3.5, 99, "up"]),
                        ("speaker", [0, 2, 5, [1, 2, 3], {"1": -1}, "all"]), ("junk", [1])):
        if rng.random() < 0.15:
            start[key] = rng.choice(values)
    pieces = [json.dumps(start)] if rng.random() < 0.8 else []
    for _ in range(rng.randrange(1, 8)):
        pieces.append(rng.choice([
            bytes(rng.randrange(256) for _ in range(rng.randrange(0, 700))),
            np.zeros(rng.choice([160, 161, 480, 7]), np.float32).tobytes()[:rng.randrange(1, 2000)],
            json.dumps({"type": "control", "pitch": rng.uniform(-30, 30)}),
            json.dumps({"type": rng.choice(["control", "end", "stop", ""]), "speaker": rng.randrange(-1, 5)}),
            "".join(chr(rng.randrange(32, 127)) for _ in range(rng.randrange(0, 40))),
        ]))
    return pieces + ['{"type": "end"}']


def vanish(address, rng):
    """A client that drops its socket mid-stream without closing."""
    with connect(f"ws://{address}/stream") as ws:
        ws.send(START)
        for _ in range(rng.randrange(1, 20)):
            ws.send(np.zeros(160, np.float32).tobytes())
        ws.socket.close()


def test_fuzzed_clients_leave_other_streams_bit_identical(server):
    address, state = server
    rng = random.Random(SEED)
    good = CASES[:3]
    codes = []

    def run_bad():
        for _ in range(25):
            if rng.random() < 0.15:
                vanish(address, rng)
            else:
                codes.append(close_reason(address, fuzz_messages(rng)))

    results = in_threads(1 + len(good), lambda k: stream_case(address, k - 1, good[k - 1], 0.6) if k else run_bad())
    for k, case in enumerate(good):
        assert_offline(state.models, k, case, results[k + 1])
    unclear = [c for c in codes if c[0] not in (1000, 1003, 1007, 1008, 1009) or not c[1]]
    assert not unclear and len(codes) > 15
    assert state.scheduler.error is None and state.open_streams == 0


def test_the_load_test_gets_every_block_back(models):
    from corvina_tools.server.loadtest import bench
    with running_server(models) as (address, state):      # default limits: 1 s never backs up 2 s
        result = bench(f"ws://{address}/stream", streams=4, seconds=1.0)
    assert (result.failed_streams, result.blocks, result.returned) == (0, 400, 400), result.first_failure
    assert state.metrics.largest_batch >= 2
