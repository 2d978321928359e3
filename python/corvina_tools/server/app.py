"""The HTTP side of `corvina serve`: the streaming WebSocket, file
conversion, health, metrics and the page, as one ASGI application (served by
uvicorn, or by Ray Serve on a cluster)."""
import argparse
import asyncio
import contextlib
import os
import tempfile
from dataclasses import dataclass, field
from typing import Optional

from starlette.applications import Starlette
from starlette.requests import Request
from starlette.responses import FileResponse, JSONResponse, PlainTextResponse, Response
from starlette.routing import Mount, Route, WebSocketRoute
from starlette.staticfiles import StaticFiles

from ..convert_files import ConversionError, convert_file
from ..model_set import ModelSet
from .metrics import Metrics
from .protocol import Limits
from .scheduler import Scheduler
from .websocket import bearer, serve_stream, token_matches

PAGE = os.path.join(os.path.dirname(__file__), "page")
FILE_FORMATS = {"wav": ("WAV", "FLOAT"), "wav16": ("WAV", "PCM_16"), "flac": ("FLAC", "PCM_16")}


@dataclass
class ServerState:
    """What the routes share: one scheduler per process."""
    models: ModelSet
    limits: Limits = field(default_factory=Limits)
    token: Optional[str] = None
    quality: str = "LQ"
    workers: int = 1
    name: str = ""                                 # told to clients: which replica serves them
    metrics: Metrics = field(default_factory=Metrics)
    open_streams: int = 0

    def __post_init__(self):
        self.scheduler = Scheduler(self.models, self.metrics, workers=self.workers)
        self.file_slots = asyncio.Semaphore(1)     # one file at a time beside the streams


def create_app(state: ServerState) -> Starlette:
    @contextlib.asynccontextmanager
    async def lifespan(app):
        state.scheduler.start()
        try:
            yield
        finally:
            state.scheduler.stop()

    app = Starlette(routes=[
        Route("/", page),
        Route("/health", health),
        Route("/metrics", metrics),
        Route("/convert", convert, methods=["POST"]),
        WebSocketRoute("/stream", serve_stream),
        Mount("/page", StaticFiles(directory=PAGE, check_dir=False), name="page"),
    ], lifespan=lifespan)
    app.state.corvina = state
    return app


async def page(request: Request):
    return FileResponse(os.path.join(PAGE, "index.html"))


async def health(request: Request):
    state: ServerState = request.app.state.corvina
    error = state.scheduler.error
    body = {"status": "ok" if error is None else "failed", "streams": state.open_streams,
            "max_streams": state.limits.max_streams, "speakers": state.models.n_speakers}
    if error is not None:
        body["error"] = repr(error)
    return JSONResponse(body, status_code=200 if error is None else 503)


async def metrics(request: Request):
    return PlainTextResponse(request.app.state.corvina.metrics.prometheus(),
                             media_type="text/plain; version=0.0.4")


async def convert(request: Request):
    """POST the file's bytes; query: speaker (row, or ROW:WEIGHT,...), pitch,
    rate, format (wav, wav16, flac). Returns the converted file."""
    state: ServerState = request.app.state.corvina
    if not token_matches(state.token, bearer(request.headers)):
        state.metrics.rejected["token"] += 1
        return PlainTextResponse("missing or wrong token\n", status_code=401)
    try:
        options = _file_options(request.query_params, state)
    except (ValueError, argparse.ArgumentTypeError) as e:
        return PlainTextResponse(f"{e}\n", status_code=400)
    body = bytearray()
    async for chunk in request.stream():
        body += chunk
        if len(body) > state.limits.max_upload_bytes:
            return PlainTextResponse(f"file larger than {state.limits.max_upload_bytes} bytes\n", status_code=413)
    async with state.file_slots:
        try:
            data = await asyncio.to_thread(_convert_bytes, state.models, bytes(body), options)
        except ConversionError as e:
            return PlainTextResponse(f"{e}\n", status_code=400)
    state.metrics.files += 1
    media = "audio/flac" if options["format_name"] == "FLAC" else "audio/wav"
    return Response(data, media_type=media)


def _file_options(query, state):
    from ..cli import parse_speaker
    speaker = parse_speaker(query.get("speaker", "0"))
    pitch, rate = float(query.get("pitch", 0)), int(query.get("rate", 24000))
    if not state.limits.min_rate <= rate <= state.limits.max_rate:
        raise ValueError(f"rate must be from {state.limits.min_rate} to {state.limits.max_rate} Hz, not {rate}")
    if abs(pitch) > state.limits.max_pitch:
        raise ValueError(f"pitch must be within ±{state.limits.max_pitch:g} semitones, not {pitch}")
    if query.get("format", "wav") not in FILE_FORMATS:
        raise ValueError(f"format must be one of {', '.join(FILE_FORMATS)}")
    format_name, subtype = FILE_FORMATS[query.get("format", "wav")]
    from ..converter import Converter
    Converter(state.models, output_rate=rate, speaker=speaker, pitch_shift=pitch)   # checks the speaker
    return dict(speaker=speaker, pitch_shift=pitch, rate=rate, format_name=format_name, subtype=subtype,
                quality=state.quality)


def _convert_bytes(models, data, options):
    with tempfile.TemporaryDirectory(prefix="corvina-serve-") as folder:
        source, target = os.path.join(folder, "input"), os.path.join(folder, "output")
        with open(source, "wb") as f:
            f.write(data)
        convert_file(models, source, target, **options)
        with open(target, "rb") as f:
            return f.read()
