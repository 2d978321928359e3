"""The `corvina` command."""
import argparse
import importlib.metadata
import os
import signal
import sys
import tempfile
import threading
import time

from .default_model import default_model_dir
from .model_files import ModelError

UNTRAINED = ("The model is untrained: random, well-conditioned weights that turn speech into "
             "noise-like audio. It exists to try the tools and measure speed.")
# The model directory used when none is named: the packaged default model
# (None in an installation without one, where --model is then required).
DEFAULT_MODEL = default_model_dir()
MODEL_REQUIRED = DEFAULT_MODEL is None
# Audio shorter than this gives no real-time factor: start-up would dominate it.
MIN_TIMED_SECONDS = 1.0


def model_directory(given):
    """The model directory a command uses: the one named, else the default
    (None if there is neither)."""
    return given or DEFAULT_MODEL


def _version():
    try:
        return importlib.metadata.version("corvina")
    except importlib.metadata.PackageNotFoundError:
        return "(not installed: run from the source tree)"


def parse_speaker(text):
    """'2' picks row 2; '0:0.7,1:0.3' mixes rows with weights."""
    try:
        if ":" not in text:
            return int(text)
        pairs = [(int(k), float(w)) for k, w in (part.split(":") for part in text.split(","))]
    except ValueError:
        raise argparse.ArgumentTypeError(f"expected a row index or ROW:WEIGHT,... not {text!r}") from None
    rows = [row for row, _ in pairs]
    repeated = next((row for row in rows if rows.count(row) > 1), None)
    if repeated is not None:
        raise argparse.ArgumentTypeError(f"speaker row {repeated} is given twice in {text!r}")
    return dict(pairs)


def parse_pitch(text):
    from .converter import checked_pitch_shift
    try:
        return checked_pitch_shift(text)
    except ValueError as e:
        raise argparse.ArgumentTypeError(str(e)) from None


def _add_model_option(p, required=MODEL_REQUIRED):
    p.add_argument("-m", "--model", required=required,
                   help="model directory" + ("" if DEFAULT_MODEL is None else " (default: the packaged default model)"))


def _add_voice_options(p):
    p.add_argument("-s", "--speaker", type=parse_speaker, default=0,
                   help="target speaker row, or weights over rows for a mixed voice, e.g. 0:0.7,1:0.3")
    p.add_argument("-p", "--pitch", type=parse_pitch, default=0.0,
                   help="pitch shift in semitones, from -47.75 to 47.75 (the span of the pitch bins)")


def _add_quality_option(p, default):
    p.add_argument("--quality", choices=["VHQ", "HQ", "MQ", "LQ", "QQ"], default=default,
                   help=f"resampler quality when rates differ from 16/24 kHz (default {default}; "
                        "higher quality holds back more audio: about 40 ms per resampler at HQ, 20 ms at LQ)")


def build_parser():
    parser = argparse.ArgumentParser(prog="corvina", description="Voice conversion with the corvina engine.")
    parser.add_argument("--version", action="version", version=f"%(prog)s {_version()}")
    sub = parser.add_subparsers(dest="command", required=True, metavar="COMMAND")

    p = sub.add_parser("convert", help="convert audio files",
                       description="Convert audio files. Several channels are mixed to one (mono) before "
                                   "conversion; the output is mono. Messages and the progress bar go to "
                                   "standard error.")
    p.add_argument("inputs", nargs="+", metavar="INPUT",
                   help="audio files in any format libsndfile reads; - reads standard input")
    p.add_argument("-o", "--output", required=True,
                   help="output file, a folder (for several inputs, or a path ending in /), "
                        "or - for standard output")
    _add_model_option(p)
    _add_voice_options(p)
    p.add_argument("-r", "--rate", type=int, default=24000, help="output sample rate (default 24000, the model's)")
    p.add_argument("-f", "--format", help="output format, e.g. WAV, FLAC, OGG (default: from the extension; "
                                          "WAV in a folder or on standard output)")
    p.add_argument("--subtype", help="output sample type, e.g. PCM_16, PCM_24, FLOAT (default: the format's)")
    _add_quality_option(p, "HQ")

    p = sub.add_parser("info", help="describe a model directory, parameter file or speaker file "
                                    "(default: the packaged default model)")
    p.add_argument("path", nargs=None if MODEL_REQUIRED else "?")

    p = sub.add_parser("bench", help="time the models per frame (weights do not change the timing; without "
                                     "--model and a default model, a generated test model is used)")
    _add_model_option(p, required=False)
    p.add_argument("-n", "--frames", type=int, default=1000, help="frames to time (default 1000)")

    p = sub.add_parser("make-test-model", help="write an untrained random model set",
                       description="Write a complete model set with random weights. " + UNTRAINED)
    p.add_argument("directory")
    p.add_argument("--seed", type=int, default=0)
    p.add_argument("--speakers", type=int, default=4, help="speaker rows (default 4)")

    p = sub.add_parser("live", help="convert the microphone to the speakers")
    wanted = p.add_mutually_exclusive_group(required=MODEL_REQUIRED)
    _add_model_option(wanted, required=False)
    wanted.add_argument("--list-devices", action="store_true", help="list audio devices and exit")
    _add_voice_options(p)
    p.add_argument("--input", help="input device index or name fragment")
    p.add_argument("--output", help="output device index or name fragment")
    p.add_argument("--seconds", type=float, help="stop after this long (default: Ctrl+C)")
    _add_quality_option(p, "LQ")

    p = sub.add_parser("demo", help="convert a synthesized sentence into every default voice",
                       description="Speak a sentence with a synthesizer voice the default model was not trained "
                                   "on (espeak-ng; without it, a built-in signal), convert it to every speaker of "
                                   "the model and once with the pitch raised, write the WAV files and a "
                                   "spectrogram picture, and print the real-time factor.")
    p.add_argument("-o", "--output", default="demo-output", help="folder for the files (default demo-output)")
    p.add_argument("-m", "--model", help="model directory (default: the packaged default model)")

    p = sub.add_parser("serve", help="serve conversion over WebSockets and HTTP (needs corvina[serve])",
                       description="Stream conversion to many clients at once, batched every 10 ms; "
                                   "a page for the browser at /.")
    p.add_argument("-m", "--model", help="model directory (default: the packaged default model)")
    p.add_argument("--host", default="127.0.0.1", help="address to listen on (default 127.0.0.1)")
    p.add_argument("--port", type=int, default=8000, help="port (default 8000)")
    p.add_argument("--max-streams", type=int, default=16, help="streams at once; more are refused (default 16)")
    p.add_argument("--token", help="require this bearer token (default: $CORVINA_TOKEN if set)")
    p.add_argument("--workers", type=int, default=os.cpu_count() or 1,
                   help="threads a wide batch is split over (default: the cores, %(default)s here)")
    p.add_argument("--log-level", default="info", choices=["debug", "info", "warning", "error"])
    _add_quality_option(p, "LQ")

    p = sub.add_parser("serve-bench", help="load-test corvina serve with real-time clients on loopback",
                       description="N clients send 10 ms blocks paced at real time and time each block's "
                                   "converted audio; without --url a server is started with --model or a test model.")
    p.add_argument("--url", help="stream endpoint of a running server, e.g. ws://127.0.0.1:8000/stream")
    p.add_argument("-m", "--model", help="model directory for the server started here")
    p.add_argument("-n", "--streams", type=int, default=16, help="clients at once (default 16)")
    p.add_argument("--seconds", type=float, default=10.0, help="audio each client sends (default 10)")
    p.add_argument("--sweep", type=lambda t: [int(n) for n in t.split(",")],
                   help="stream counts to try in turn, e.g. 4,8,12,16,20; stops at the first with a gap")
    p.add_argument("--cushion-ms", type=float, default=20.0, help="client jitter buffer for counting gaps (default 20)")
    p.add_argument("--token", help="bearer token for the server")
    p.add_argument("--workers", type=int, default=os.cpu_count() or 1, help="--workers of the server started here")
    p.add_argument("--json", help="write the figures to this file too")

    from .train_command import add_commands
    add_commands(sub)
    return parser


class Stopped(KeyboardInterrupt):
    """SIGTERM or SIGHUP, handled as Ctrl+C is: whatever is half-done is
    cleaned up on the way out."""

    def __init__(self, signum):
        super().__init__(signum)
        self.signum = signum


def _stop(signum, frame):
    raise Stopped(signum)


def main(argv=None):
    args = build_parser().parse_args(argv)
    previous = {}
    for number in (signal.SIGTERM, signal.SIGHUP):
        # nohup's choice stands; handlers can be set on the main thread only
        if signal.getsignal(number) is not signal.SIG_IGN and threading.current_thread() is threading.main_thread():
            previous[number] = signal.signal(number, _stop)
    try:
        if hasattr(args, "run"):
            return args.run(args)
        return COMMANDS[args.command](args)
    except ModelError as e:
        return _fail(f"bad model: {e}")
    except Stopped as e:
        return _fail(f"stopped by {signal.Signals(e.signum).name}", 128 + e.signum)
    except KeyboardInterrupt:
        return _fail("interrupted", 130)
    finally:
        for number, handler in previous.items():
            signal.signal(number, handler)


def _fail(message, status=1):
    print(f"corvina: {message}", file=sys.stderr)
    return status


def _load(directory):
    from .model_set import ModelSet
    return ModelSet.load(directory)


def cmd_convert(args):
    from .audio_io import STDIO, ConversionError, check_destination, display_name
    from .convert_files import convert_file, output_format, plan_outputs, progress_bar, total_seconds
    from .converter import Converter
    models = _load(model_directory(args.model))     # a bad model stops everything before any output
    try:                                            # so do bad settings and unwritable outputs
        Converter(models, output_rate=args.rate, speaker=args.speaker, pitch_shift=args.pitch)
        pairs = plan_outputs(args.inputs, args.output, args.format)
        for _, target in pairs:
            output_format(target, args.format, args.subtype)
            check_destination(target)
    except (ValueError, OSError) as e:
        return _fail(str(e))
    report = sys.stderr if args.output == STDIO else sys.stdout     # standard output may carry the audio
    failures, results = 0, []
    start = time.perf_counter()
    with progress_bar(total_seconds(args.inputs)) as bar:
        for source, target in pairs:
            try:
                if STDIO not in (source, target) and os.path.exists(target) and os.path.samefile(source, target):
                    raise ValueError(f"{target} is the input itself; choose another output")
                results.append(convert_file(models, source, target, rate=args.rate, format_name=args.format,
                                            subtype=args.subtype, speaker=args.speaker,
                                            pitch_shift=args.pitch, quality=args.quality, progress=bar))
            except (ConversionError, ValueError, OSError) as e:
                failures += 1
                bar.write(f"corvina: {e}", file=sys.stderr)
    wall = time.perf_counter() - start
    for r in results:
        for note in r.warnings():
            print(f"corvina: warning: {display_name(r.source)}: {note}", file=sys.stderr)
    print(closing_line(results, len(pairs), failures, wall), file=report)
    return 1 if failures else 0


def closing_line(results, planned, failures, wall):
    """The closing line: files converted and failed; audio and processing
    time, and the real-time factor where there was enough audio to time."""
    line = f"converted {len(results)} of {planned} file(s)" + (f", {failures} failed" if failures else "")
    if not results:
        return line
    audio = sum(r.seconds for r in results)
    processing = sum(r.processing for r in results)
    line += f": {audio:.2f} s of audio in {processing:.2f} s ({wall:.2f} s in all)"
    if audio >= MIN_TIMED_SECONDS:
        line += f", real-time factor {processing / audio:.3f}"
    return line


def cmd_info(args):
    from .info import describe
    import corvina
    lines, ok = describe(model_directory(args.path))
    print("\n".join(lines))
    print(f"engine: kernel set {corvina._KERNEL_SET}")
    return 0 if ok else 1


def cmd_bench(args):
    from .bench import summary, time_frames
    with tempfile.TemporaryDirectory(prefix="corvina-bench-") as scratch:
        directory = model_directory(args.model)
        if directory:
            models = _load(directory)
            print(f"model directory: {directory}")
        else:
            from .test_model import write_test_model
            models = _load(write_test_model(scratch))
            print("model: generated test model (random weights; the timing does not depend on them)")
        import corvina
        print(f"{args.frames} frames of 10 ms, one stream, Python calls timed with perf_counter, "
              f"kernel set {corvina._KERNEL_SET}")
        print("\n".join(summary(time_frames(models, args.frames))))
    return 0


def cmd_make_test_model(args):
    from .test_model import write_test_model
    if args.speakers < 1:
        return _fail("--speakers must be at least 1")
    write_test_model(args.directory, seed=args.seed, speakers=args.speakers)
    print(f"wrote a test model with {args.speakers} speaker(s) to {args.directory}")
    print(UNTRAINED)
    return 0


def _list_devices():
    from .live import LiveError, import_sounddevice
    try:
        devices = import_sounddevice().query_devices()
    except LiveError as e:
        return _fail(str(e))
    if len(devices) == 0:
        return _fail("no audio devices found")
    print(devices)
    return 0


def cmd_live(args):
    from .converter import Converter
    from .live import LiveError, import_sounddevice, run_live
    if args.list_devices:
        return _list_devices()
    try:
        sd = import_sounddevice()
        models = _load(model_directory(args.model))
        run_live(lambda i, o: Converter(models, i, o, speaker=args.speaker, pitch_shift=args.pitch,
                                        quality=args.quality),
                 sd, args.input, args.output, seconds=args.seconds)
    except LiveError as e:
        return _fail(f"live: {e}")
    return 0


def cmd_demo(args):
    from .default_model import default_model_dir
    from .demo import run_demo
    model = args.model or default_model_dir()
    if model is None:
        return _fail("this installation has no default model; give --model")
    run_demo(args.output, model)
    return 0


def cmd_serve(args):
    try:
        import starlette  # noqa: F401
        import uvicorn  # noqa: F401

        from .server import Limits, run_server
    except ImportError as e:
        return _fail(f"serve: {e.name} is missing; install corvina[serve]")
    if args.max_streams < 1:
        return _fail("--max-streams must be at least 1", 2)
    run_server(args.model, args.host, args.port, Limits(max_streams=args.max_streams), args.token, args.quality,
               args.log_level, args.workers)
    return 0


def cmd_serve_bench(args):
    try:
        import websockets  # noqa: F401
    except ImportError:
        return _fail("serve-bench: websockets is missing; install corvina[serve]")
    from .server.loadtest import main as bench_main
    return bench_main(args)


COMMANDS = {"convert": cmd_convert, "info": cmd_info, "bench": cmd_bench,
            "make-test-model": cmd_make_test_model, "live": cmd_live, "demo": cmd_demo, "serve": cmd_serve,
            "serve-bench": cmd_serve_bench}

if __name__ == "__main__":
    sys.exit(main())
