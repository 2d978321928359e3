"""The packaged default model converts speech through the engine: in every
voice the output follows the input's syllables and pauses at a sane level,
and the voices differ from one another."""
import shutil

import numpy as np
import pytest

from corvina_tools import Converter, ModelSet
from corvina_tools.default_model import default_model_dir, speaker_names

pytestmark = [pytest.mark.skipif(default_model_dir() is None, reason="no default model in this checkout"),
              pytest.mark.skipif(shutil.which("espeak-ng") is None, reason="espeak-ng speaks the input")]


def level_contour(audio, rate):
    """dB per 10 ms."""
    hop = rate // 100
    frames = audio[:len(audio) // hop * hop].reshape(-1, hop)
    return 10 * np.log10(np.mean(frames ** 2, axis=1) + 1e-8)


def long_term_spectrum(audio):
    frames = audio[:len(audio) // 512 * 512].reshape(-1, 512) * np.hanning(512)
    return 10 * np.log10(np.mean(np.abs(np.fft.rfft(frames, axis=1)) ** 2, axis=0) + 1e-10)


def test_every_voice_follows_the_input():
    from corvina_tools.demo import spoken_sentence
    models = ModelSet.load(default_model_dir())
    assert speaker_names(default_model_dir(), models.n_speakers)[0] != "row 0"
    x, _ = spoken_sentence("Please call Stella and ask her to bring these things with her from the store.")
    contour = level_contour(x, 16000)
    spectra = []
    for row in range(models.n_speakers):
        converter = Converter(models, speaker=row)
        y = np.concatenate([converter.process(x), converter.flush()])
        assert np.corrcoef(contour, level_contour(y, 24000)[:len(contour)])[0, 1] > 0.75, row
        assert 0.01 < np.sqrt(np.mean(y ** 2)) < 0.3 and np.max(np.abs(y)) < 1.0, row
        spectra.append(long_term_spectrum(y))
    differences = [np.mean(np.abs(a - b)) for i, a in enumerate(spectra) for b in spectra[i + 1:]]
    # espeak-ng's male variants stay close to one another; most pairs do not.
    assert np.median(differences) > 2.0
