"""`corvina serve-bench`: N clients on loopback, each sending 10 ms blocks
paced at real time, measuring when each block's converted audio comes back.

A block's latency runs from sending it to receiving the last converted
sample it gives. A gap is a block that a listener with a `cushion` jitter
buffer would miss: playback starts when the first converted block arrives
plus the cushion, and block k is due 10 ms * k after that."""
import asyncio
import json
import os
import re
import socket
import subprocess
import sys
import tempfile
import time
import urllib.request
from dataclasses import asdict, dataclass
from typing import List, Optional

import numpy as np

from ..converter import IN_HOP, IN_RATE, OUT_HOP
from ..speech import speech_like

BLOCK_SECONDS = IN_HOP / IN_RATE


@dataclass
class BenchResult:
    streams: int
    seconds: float
    blocks: int
    returned: int               # blocks whose converted audio came back
    p50_ms: float
    p99_ms: float
    max_ms: float
    gaps: int
    ticks: int
    missed_ticks: int
    tick_p50_ms: float
    tick_p99_ms: float
    tick_cpu_p50_ms: float
    failed_streams: int
    first_failure: str = ""

    def line(self) -> str:
        return (f"{self.streams:3d} streams: latency p50 {self.p50_ms:6.1f} ms, p99 {self.p99_ms:6.1f} ms, "
                f"max {self.max_ms:6.1f} ms; gaps {self.gaps} of {self.blocks} blocks; missed ticks "
                f"{self.missed_ticks} of {self.ticks}; tick p50 {self.tick_p50_ms:.1f} ms, "
                f"p99 {self.tick_p99_ms:.1f} ms, CPU p50 {self.tick_cpu_p50_ms:.1f} ms" + (f"; {self.failed_streams} streams failed"
                                                    if self.failed_streams else "")
                + (f" ({self.first_failure})" if self.first_failure else ""))


async def one_client(url: str, seconds: float, offset: float, cushion: float, token: Optional[str]):
    """Returns (latencies in seconds, gaps) for one real-time stream."""
    from websockets.asyncio.client import connect
    n_blocks = int(round(seconds / BLOCK_SECONDS))
    x = speech_like(seconds, IN_RATE, seed=int(offset * 1e6) % 1000).astype(np.float32)
    sent = np.zeros(n_blocks)
    arrived = np.full(n_blocks, np.nan)
    headers = {"Authorization": f"Bearer {token}"} if token else None
    async with connect(url, additional_headers=headers, max_size=None) as ws:
        await ws.send(json.dumps({"type": "start", "input_rate": IN_RATE, "output_rate": 24000}))
        assert json.loads(await ws.recv())["type"] == "ready"

        async def receive():
            received = 0
            async for message in ws:
                if isinstance(message, str):
                    continue
                now = time.perf_counter()
                before = received // (OUT_HOP * 4)
                received += len(message)
                arrived[before:received // (OUT_HOP * 4)] = now

        receiver = asyncio.ensure_future(receive())
        await asyncio.sleep(offset)
        start = time.perf_counter()
        for i in range(n_blocks):
            delay = start + i * BLOCK_SECONDS - time.perf_counter()
            if delay > 0:
                await asyncio.sleep(delay)
            sent[i] = time.perf_counter()
            await ws.send(x[i * IN_HOP:(i + 1) * IN_HOP].tobytes())
        await ws.send(json.dumps({"type": "end"}))
        await receiver
    latency = arrived - sent
    playback = arrived[0] + cushion + BLOCK_SECONDS * np.arange(n_blocks)
    gaps = int(np.sum(~(arrived <= playback)))            # late, or never came
    return latency[np.isfinite(latency)], gaps


def scrape(metrics_url: str) -> dict:
    with urllib.request.urlopen(metrics_url) as response:
        text = response.read().decode()
    return {name: float(value) for name, value in re.findall(r"^(\S+) (\S+)$", text, re.M)}


async def run_clients(url, streams, seconds, cushion, token):
    offsets = [BLOCK_SECONDS * k / streams for k in range(streams)]      # spread over a tick
    return await asyncio.gather(*(one_client(url, seconds, o, cushion, token) for o in offsets),
                                return_exceptions=True)


def bench(url: str, streams: int, seconds: float = 10.0, cushion: float = 0.02,
          token: Optional[str] = None) -> BenchResult:
    metrics_url = url.replace("ws://", "http://").rsplit("/", 1)[0] + "/metrics"
    before = scrape(metrics_url)
    results = asyncio.run(run_clients(url, streams, seconds, cushion, token))
    after = scrape(metrics_url)
    ok = [r for r in results if not isinstance(r, BaseException)]
    latencies = np.concatenate([r[0] for r in ok]) * 1000 if ok else np.zeros(1)
    n_blocks = int(round(seconds / BLOCK_SECONDS))
    failed = len(results) - len(ok)
    quantile = 'corvina_tick_seconds{quantile="%s"}'
    cpu_quantile = 'corvina_tick_cpu_seconds{quantile="%s"}'
    return BenchResult(streams, seconds, n_blocks * streams, len(latencies) if ok else 0, float(np.percentile(latencies, 50)),
                       float(np.percentile(latencies, 99)), float(latencies.max()),
                       sum(r[1] for r in ok) + failed * n_blocks,
                       int(after["corvina_ticks_total"] - before["corvina_ticks_total"]),
                       int(after["corvina_missed_ticks_total"] - before["corvina_missed_ticks_total"]),
                       after.get(quantile % 0.5, 0) * 1000, after.get(quantile % 0.99, 0) * 1000,
                       after.get(cpu_quantile % 0.5, 0) * 1000, failed,
                       next((repr(r) for r in results if isinstance(r, BaseException)), ""))


def free_port() -> int:
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def start_server(model: Optional[str], max_streams: int, extra: List[str] = ()) -> subprocess.Popen:
    """`corvina serve` in its own process on a free loopback port."""
    port = free_port()
    command = [sys.executable, "-m", "corvina_tools.cli", "serve", "--port", str(port),
               "--max-streams", str(max_streams), "--log-level", "warning", *extra] + (["--model", model] if model else [])
    server = subprocess.Popen(command, stderr=subprocess.PIPE, text=True)
    server.url = f"ws://127.0.0.1:{port}/stream"
    deadline = time.monotonic() + 60
    while time.monotonic() < deadline:
        try:
            urllib.request.urlopen(f"http://127.0.0.1:{port}/health", timeout=1).close()
            return server
        except OSError:
            if server.poll() is not None:
                raise RuntimeError(f"the server did not start: {server.stderr.read()}")
            time.sleep(0.2)
    server.kill()
    raise RuntimeError("the server did not answer within 60 s")


def sweep(url, counts, seconds, cushion, token, report=print):
    """Run each count in turn; the most streams with no gap and no failure."""
    best, results = 0, []
    for n in counts:
        result = bench(url, n, seconds, cushion, token)
        results.append(result)
        report(result.line())
        if result.gaps or result.failed_streams:
            break
        best = n
    return best, results


def main(args) -> int:
    server = None
    if args.url is None:
        model_dir = args.model or tempfile.mkdtemp(prefix="corvina-bench-model-")
        if args.model is None:
            from ..test_model import write_test_model
            write_test_model(model_dir)
        server = start_server(model_dir, max(args.streams, max(args.sweep or [0])) + 1,
                              ["--workers", str(args.workers)])
        url = server.url
        print(f"server: corvina serve (pid {server.pid}) at {url}, os.cpu_count() = {os.cpu_count()}")
    else:
        url = args.url
    try:
        if args.sweep:
            best, results = sweep(url, args.sweep, args.seconds, args.cushion_ms / 1000, args.token)
            print(f"most streams with no gap: {best}")
        else:
            results = [bench(url, args.streams, args.seconds, args.cushion_ms / 1000, args.token)]
            print(results[0].line())
        if args.json:
            with open(args.json, "w") as f:
                json.dump([asdict(r) for r in results], f, indent=1)
    finally:
        if server is not None:
            server.terminate()
            server.wait()
    return 0
