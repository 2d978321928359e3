"""`corvina demo`: a sentence spoken by a synthesizer voice the default
model was not trained on, converted to every default speaker and once with
the pitch raised, written as WAV files with a spectrogram picture."""
import os
import re
import shutil
import subprocess
import tempfile
import time

import numpy as np
import soundfile as sf
import soxr

from .default_model import speaker_names
from .converter import IN_RATE, OUT_RATE, Converter
from .model_set import ModelSet
from .spectrogram import write_spectrograms
from .speech import speech_like

SENTENCE = "The quick brown fox jumps over the lazy dog, and then it runs away into the woods."
DEMO_VOICE = ("espeak-ng", "en-gb-scotland+f4")     # not one of the voices the default model was trained on
PITCH_SHIFT = 4.0


def spoken_sentence(text=SENTENCE):
    """(16 kHz float32 audio, what spoke it): espeak-ng if installed, else
    the built-in speech-like signal."""
    if shutil.which(DEMO_VOICE[0]):
        with tempfile.TemporaryDirectory(prefix="corvina-demo-") as folder:
            path = os.path.join(folder, "voice.wav")
            try:
                done = subprocess.run([DEMO_VOICE[0], "-v", DEMO_VOICE[1], "-w", path, text], capture_output=True,
                                      timeout=60)
            except subprocess.TimeoutExpired:      # a synthesizer that hangs: the built-in signal instead
                done = None
            if done is not None and done.returncode == 0 and os.path.exists(path):
                audio, rate = sf.read(path, dtype="float32", always_2d=True)
                audio = soxr.resample(audio.mean(axis=1), rate, IN_RATE).astype(np.float32)
                return 0.5 * audio / (np.max(np.abs(audio)) or 1.0), f"{DEMO_VOICE[0]} voice {DEMO_VOICE[1]}"
    return speech_like(3.0, IN_RATE), "the built-in speech-like signal (espeak-ng is not installed)"


def _convert(models, x, **settings):
    converter = Converter(models, input_rate=IN_RATE, output_rate=OUT_RATE, **settings)
    start = time.perf_counter()
    y = np.concatenate([converter.process(x), converter.flush()])
    return y, time.perf_counter() - start


def run_demo(output_dir, model_dir, report=print):
    os.makedirs(output_dir, exist_ok=True)
    models = ModelSet.load(model_dir)
    names = speaker_names(model_dir, models.n_speakers)
    x, source = spoken_sentence()
    seconds = len(x) / IN_RATE
    report(f"input: \"{SENTENCE}\" spoken by {source}, {seconds:.1f} s")
    sf.write(os.path.join(output_dir, "input.wav"), x, IN_RATE)
    slugs = [re.sub(r"[^A-Za-z0-9_-]+", "-", name) for name in names]
    runs = [(f"speaker{row}_{slug}.wav", f"speaker {row} ({name})", {"speaker": row})
            for row, (name, slug) in enumerate(zip(names, slugs))]
    runs.append((f"speaker0_{slugs[0]}_up{PITCH_SHIFT:g}.wav",
                 f"speaker 0, pitch +{PITCH_SHIFT:g} semitones", {"speaker": 0, "pitch_shift": PITCH_SHIFT}))
    pictures, audio_seconds, busy = [(x, IN_RATE)], 0.0, 0.0
    for name, what, settings in runs:
        y, elapsed = _convert(models, x, **settings)
        peak = float(np.max(np.abs(y)))
        if peak > 0.99:                     # keep the file unclipped; say so
            y = 0.99 * y / peak
            what += f" (scaled down from peak {peak:.2f})"
        sf.write(os.path.join(output_dir, name), y, OUT_RATE)
        pictures.append((y, OUT_RATE))
        audio_seconds, busy = audio_seconds + seconds, busy + elapsed
        report(f"{name}: {what}")
    write_spectrograms(os.path.join(output_dir, "spectrograms.png"), pictures)
    report(f"converted {audio_seconds:.1f} s of audio in {busy:.2f} s: real-time factor {busy / audio_seconds:.3f} "
           f"({audio_seconds / busy:.1f}x faster than real time, one core)")
    report("spectrograms.png: 0-8 kHz, top to bottom: the input, then the files in the order above")
    report(f"wrote the files to {os.path.abspath(output_dir)}")
