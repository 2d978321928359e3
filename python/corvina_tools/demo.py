"""`corvina demo`: a generated model and a synthesised voice, converted."""
import os
import tempfile
import time

import numpy as np
import soundfile as sf

from .converter import Converter, IN_RATE, OUT_RATE
from .model_set import ModelSet
from .speech import speech_like
from .test_model import write_test_model

UNTRAINED_NOTE = ("The model is an untrained test model with random weights: the converted audio "
                  "is noise-like, not a voice. It shows the tools work and how fast they run.")


def _convert(models, x, **settings):
    converter = Converter(models, input_rate=IN_RATE, output_rate=OUT_RATE, **settings)
    start = time.perf_counter()
    y = np.concatenate([converter.process(x), converter.flush()])
    return y, time.perf_counter() - start


def run_demo(output_dir, seconds=3.0, report=print):
    os.makedirs(output_dir, exist_ok=True)
    with tempfile.TemporaryDirectory(prefix="corvina-demo-") as model_dir:
        report(f"writing a random test model to {model_dir}")
        models = ModelSet.load(write_test_model(model_dir, seed=0, speakers=2))
        x = speech_like(seconds, IN_RATE)
        sf.write(os.path.join(output_dir, "input.wav"), x, IN_RATE)
        runs = [("converted.wav", "speaker 0", {}),
                ("converted_mix_up4.wav", "speakers 0 and 1 mixed, pitch +4 semitones",
                 {"speaker": {0: 0.5, 1: 0.5}, "pitch_shift": 4.0})]
        for name, what, settings in runs:
            y, elapsed = _convert(models, x, **settings)
            peak = float(np.max(np.abs(y))) or 1.0
            # Written at -6 dBFS peak: the untrained output is loud noise.
            sf.write(os.path.join(output_dir, name), 0.5 * y / peak, OUT_RATE)
            report(f"{name}: {what}: {seconds:.1f} s of audio in {elapsed:.2f} s, "
                   f"real-time factor {elapsed / seconds:.3f}")
    report(f"wrote input.wav and the converted files to {os.path.abspath(output_dir)}")
    report(UNTRAINED_NOTE)
