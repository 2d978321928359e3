"""One streaming connection: reads the client's messages, queues its frames
for the scheduler, and sends converted blocks back as ticks produce them.
Whatever goes wrong with a connection ends that connection only."""
import asyncio
import hmac
import logging

from starlette.websockets import WebSocket, WebSocketDisconnect

from ..converter import Converter
from .protocol import (INTERNAL, INVALID, NORMAL, POLICY, TRY_LATER, UNSUPPORTED, ProtocolError, decode_block,
                       encode_block, parse_control, parse_message, parse_start)
from .scheduler import Stream

log = logging.getLogger("corvina.server")
CLOSE_LABELS = {1003: "unsupported", 1007: "invalid", 1008: "policy", 1009: "too_big", 1011: "internal"}
CLOSE_TIMEOUT = 1.0


def token_matches(expected, given) -> bool:
    return expected is None or (isinstance(given, str) and hmac.compare_digest(given.encode(), expected.encode()))


def bearer(headers) -> str:
    scheme, _, value = headers.get("authorization", "").partition(" ")
    return value.strip() if scheme.lower() == "bearer" else None


class Rejected(ProtocolError):
    """A connection refused before its stream starts."""


class StreamConnection:
    def __init__(self, ws: WebSocket, server):
        self.ws, self.server = ws, server
        self.limits = server.limits
        self.loop = asyncio.get_running_loop()
        self.outbox = asyncio.Queue()
        self.failure = self.loop.create_future()     # set when the scheduler side must end the stream
        self.stream = None
        self.settings = None

    async def run(self):
        server = self.server
        await self.ws.accept()
        if server.open_streams >= self.limits.max_streams:
            server.metrics.rejected["full"] += 1
            await self._close(TRY_LATER, f"server full: {self.limits.max_streams} streams; try again later")
            return
        server.open_streams += 1
        server.metrics.streams = server.open_streams
        try:
            await self._serve()
        finally:
            if self.stream is not None:
                server.scheduler.remove(self.stream)
            server.open_streams -= 1
            server.metrics.streams = server.open_streams

    async def _serve(self):
        receiver = asyncio.ensure_future(self._receive())
        sender = asyncio.ensure_future(self._send())
        try:
            done, _ = await asyncio.wait({receiver, sender, self.failure}, return_when=asyncio.FIRST_COMPLETED)
            first = done.pop()
            error = first.exception()
            if first is sender and error is None:
                await self._close(NORMAL, "end of stream")
            elif isinstance(error, Rejected):
                self.server.metrics.rejected["token"] += 1
                await self._close(error.code, error.reason)
            elif isinstance(error, ProtocolError):
                self.server.metrics.closed[CLOSE_LABELS.get(error.code, str(error.code))] += 1
                await self._close(error.code, error.reason)
            elif isinstance(error, WebSocketDisconnect) or first is sender or (first is receiver and error is None):
                log.debug("client went away: %r", error)     # sending fails once it has
            elif error is not None:
                log.exception("stream failed", exc_info=error)
                self.server.metrics.closed["internal"] += 1
                await self._close(INTERNAL, "internal error")
        finally:
            for task in (receiver, sender):
                task.cancel()
            await asyncio.gather(receiver, sender, return_exceptions=True)

    async def _receive(self):
        """Returns when the client disconnects; raises ProtocolError on bad input."""
        limits, n_speakers = self.limits, self.server.models.n_speakers
        while True:
            if self.settings is None:
                try:
                    message = await asyncio.wait_for(self.ws.receive(), limits.start_timeout_seconds)
                except asyncio.TimeoutError:
                    raise ProtocolError(POLICY, f"no start message within {limits.start_timeout_seconds:g} s") from None
            else:
                message = await self.ws.receive()
            if message["type"] == "websocket.disconnect":
                return
            text, data = message.get("text"), message.get("bytes")
            if self.settings is None:
                request = self._json(text, data)
                if not token_matches(self.server.token, bearer(self.ws.headers) or request.get("token")):
                    raise Rejected(POLICY, "missing or wrong token")
                self._start(parse_start(request, limits, n_speakers))
            elif text is not None:
                request = parse_message(text, limits)
                if request["type"] == "end":
                    self.stream.finish()
                    return await asyncio.Future()     # the sender ends the stream
                parse_control(request, self.settings, limits, n_speakers)
                self._apply_controls()
            else:
                backlog = self.stream.feed(decode_block(data, self.settings, limits))
                if backlog > self.backlog_frames:
                    raise ProtocolError(POLICY, f"audio arrives faster than real time: over "
                                                f"{limits.max_backlog_seconds:g} s waiting")

    def _json(self, text, data):
        if text is None:
            raise ProtocolError(UNSUPPORTED, 'open with a JSON "start" message before sending audio')
        return parse_message(text, self.limits)

    def _start(self, settings):
        self.settings = settings
        converter = Converter(self.server.models, settings.input_rate, settings.output_rate,
                              quality=self.server.quality)
        self._apply_controls(converter)
        self.stream = Stream(converter, self._deliver_from_scheduler)
        self.backlog_frames = int(self.limits.max_backlog_seconds * 100)
        self.server.scheduler.add(self.stream)
        self.server.metrics.streams_total += 1
        self.outbox.put_nowait({"type": "ready", "latency_ms": round(converter.latency.seconds * 1000, 2),
                                "speakers": self.server.models.n_speakers, "frame_ms": 10,
                                "server": self.server.name})

    def _apply_controls(self, converter=None):
        converter = converter or self.stream.converter
        try:
            converter.speaker = self.settings.speaker
            converter.pitch_shift = self.settings.pitch
        except ValueError as e:
            raise ProtocolError(INVALID, str(e)) from None

    def _deliver_from_scheduler(self, samples, last):
        try:
            self.loop.call_soon_threadsafe(self._deliver, samples, last)
        except RuntimeError:                  # the loop has closed: the server is stopping
            pass

    def _deliver(self, samples, last):
        if self.failure.done():
            return
        if self.outbox.qsize() >= self.limits.max_unsent_blocks:
            self.failure.set_exception(ProtocolError(POLICY, f"client is not reading: "
                                                             f"{self.limits.max_unsent_blocks} blocks unsent"))
            return
        out = self.stream.converter.emit(samples, last=last)
        if len(out):
            self.outbox.put_nowait(encode_block(out, self.settings))
        if last:
            self.outbox.put_nowait({"type": "done", "frames": self.stream.converter.frames})
            self.outbox.put_nowait(None)

    async def _send(self):
        while True:
            item = await self.outbox.get()
            if item is None:
                return
            if isinstance(item, bytes):
                await self.ws.send_bytes(item)
            else:
                await self.ws.send_json(item)

    async def _close(self, code, reason):
        try:
            await asyncio.wait_for(self.ws.close(code, reason), CLOSE_TIMEOUT)
        except Exception:                     # already gone, or not reading: nothing more to tell it
            pass


async def serve_stream(ws: WebSocket):
    server = ws.app.state.corvina
    await StreamConnection(ws, server).run()

