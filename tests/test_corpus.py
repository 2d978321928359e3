"""The training-corpus builder: frame alignment of audio, pitch and phone
labels against independent references, and a tiny real build."""
import json
import shutil

import numpy as np
import pytest

pytest.importorskip("torch")          # the training package needs it
pytest.importorskip("pyworld")
pytest.importorskip("librosa")
soundfile = pytest.importorskip("soundfile")
soxr = pytest.importorskip("soxr")

from corvina_tools.speech import glottal_pulses                     # noqa: E402
from corvina_tools.training import corpus, corpus_sources           # noqa: E402
from corvina_tools.training.alignment import frame_f0              # noqa: E402


def test_f0_is_the_pitch_at_each_frame_centre():
    # A pulse train on an exponential sweep: its true pitch is known at every
    # instant, and a half-frame slip costs about 0.5 % at this rate of change.
    rate, frames = 16000, 100
    t = np.arange(frames * 160) / rate
    sweep = lambda time: 120 * 4 ** (time / t[-1])          # noqa: E731
    x = glottal_pulses(sweep(t), rate)
    f0 = frame_f0((0.5 * x / np.abs(x).max()).astype(np.float32))
    centres = (np.arange(frames) + 0.5) / 100
    inner = slice(10, 90)
    assert np.median(np.abs(np.log(f0[inner] / sweep(centres[inner])))) < 0.002


@pytest.mark.parametrize("rate", [8000, 16000, 22050, 32000])
def test_labels_and_both_rates_follow_the_sound_through_trimming(rate):
    # 0.5 s silence, a 0.4 s vowel-like buzz labelled "aa", 0.6 s silence.
    t = np.arange(int(1.5 * rate)) / rate
    buzz = (t >= 0.5) & (t < 0.9)
    audio = glottal_pulses(np.full(len(t), 150.0), rate) * buzz
    rendition = corpus_sources.Rendition(audio, rate, [("pau", 0.5), ("aa", 0.9), ("pau", 1.5)])
    arrays = corpus.utterance_arrays(rendition, "a", gain=0.8)
    a16, a24, phones = arrays["audio16"], arrays["audio24"], arrays["phones"]
    frames = len(phones)
    assert len(a16) == 160 * frames and len(a24) == 240 * frames and len(arrays["f0"]) == frames
    assert np.max(np.abs(a16)) == pytest.approx(0.7 * 0.8, rel=1e-5)
    assert frames * 0.01 <= 0.4 + 0.2 + 0.02             # at most 0.1 s of silence kept each side
    loud = np.square(a16.reshape(frames, 160)).mean(axis=1) > 1e-6
    assert np.mean(loud == (phones == corpus_sources.PHONE_INDEX["aa"])) > 0.95
    assert arrays["phone_sequence"].tolist() == [corpus_sources.PHONE_INDEX["aa"]]
    # The 24 kHz copy, brought back to 16 kHz, lines up with no lag.
    back = soxr.resample(a24.astype(np.float64), 24000, 16000, quality="HQ")
    lags = np.arange(-3, 4)
    assert lags[np.argmax([np.dot(a16[8:-8], np.roll(back, lag)[8:-8]) for lag in lags])] == 0


@pytest.mark.parametrize("entry, kept", [
    ("A visit to a strange place will bring fresh work.", True),
    ("It's really quite a simple choice: Life, Death, or Los Angeles.\n\t\t-- Someone", True),
    ("Too short, sadly.", False),
    ("He said \"hello\" to the quiet neighbours next door today.", False),
    ("Q: Why did the chicken cross the road?\nA: To get to the other side.", False),
    ("We are using Linux daily to UP our productivity, so there.", False),
    ("Roses are red,\n\tviolets are blue, and this poem goes on.", False),
    ("There were 42 reasons to stay home on that particular day.", False),
    ("This sentence goes on " + "and on " * 30 + "forever.", False),
])
def test_sentence_filter(entry, kept):
    assert (corpus_sources.plain_sentence(entry) is not None) == kept


def test_growing_the_corpus_keeps_sentences_and_their_split():
    assert corpus_sources.choose_sentences(5) == corpus_sources.choose_sentences(60)[:5]
    small, large = corpus.validation_sentences(30), corpus.validation_sentences(400)
    assert small == [i for i in large if i < 30] and 0.03 < len(large) / 400 < 0.1


@pytest.fixture
def recordings(tmp_path):
    speaker = tmp_path / "recordings" / "alice"
    speaker.mkdir(parents=True)
    voiced = glottal_pulses(np.full(24000, 210.0), 16000)
    soundfile.write(speaker / "good.flac", 0.5 * voiced / np.abs(voiced).max(), 16000)
    (speaker / "good.txt").write_text("a long held vowel\n")
    soundfile.write(speaker / "silent.wav", np.zeros(24000), 16000)
    (speaker / "broken.wav").write_bytes(b"RIFF not really a wave file")
    return speaker.parent


@pytest.mark.skipif(not (shutil.which("flite") and shutil.which("espeak-ng")),
                    reason="needs flite and espeak-ng")
def test_small_build(tmp_path, recordings, capsys):
    out = tmp_path / "corpus"
    build = dict(sentences=2, voices=["flite-slt", "espeak-us"], jobs=1,
                 own_recordings=recordings, min_own_seconds=1.0)
    description = corpus.build_corpus(out, **build)
    stderr = capsys.readouterr().err
    assert "broken.wav" in stderr and "silent.wav" in stderr
    # Indices follow the sorted file names, bad files included, so that
    # fixing one later does not renumber the others.
    assert sorted(p.name for p in (out / "own-alice").iterdir()) == ["00001.npz"]     # good.flac
    assert json.loads((out / "corpus.json").read_text()) == description
    assert {s["name"]: s["utterances"] for s in description["speakers"]} == {
        "flite-slt": 2, "espeak-us": 2, "own-alice": 1}

    inventory = len(description["phones"])
    for path in sorted(out.glob("*/*.npz")):
        u = np.load(path)
        frames = len(u["f0"])
        assert len(u["audio16"]) == 160 * frames and len(u["audio24"]) == 240 * frames, path
        voiced = u["f0"][u["f0"] > 0]
        assert voiced.size > 0.3 * frames and voiced.min() >= 50 and voiced.max() <= 800, path
        if path.parent.name == "own-alice":
            assert "phones" not in u and np.median(voiced) == pytest.approx(210, rel=0.02)
            continue
        phones = u["phones"]
        assert len(phones) == frames and 0 <= phones.min() and phones.max() < inventory, path
        level = 10 * np.log10(np.square(u["audio16"].reshape(frames, 160)).mean(axis=1) + 1e-12)
        quiet = level < level.max() - 30
        assert np.mean(quiet[phones == 0]) > 0.8, path
        assert len(u["phone_sequence"]) > 10 and str(u["text"]).endswith((".", "!", "?")), path

    stamps = {p: p.stat().st_mtime_ns for p in out.glob("*/*.npz")}
    corpus.build_corpus(out, **build)                       # resuming remakes nothing
    assert {p: p.stat().st_mtime_ns for p in out.glob("*/*.npz")} == stamps

    with pytest.raises(corpus.CorpusError, match="alice"):
        corpus.build_corpus(out, **{**build, "min_own_seconds": 60.0})


def test_pitch_shifted_copies_move_the_pitch_and_keep_the_rest(tmp_path):
    pytest.importorskip("parselmouth")
    from corvina_tools.training.data import Corpus
    from corvina_tools.training.pitch_shift import plan_shift_jobs
    pulses = glottal_pulses(np.full(24000, 150.0), 24000)
    audio24 = (0.5 * pulses / np.abs(pulses).max()).astype(np.float32)
    audio16 = soxr.resample(audio24, 24000, 16000).astype(np.float32)
    for index in (0, 1):                                  # sentence 1 is a validation sentence
        corpus.save_utterance(tmp_path / "voice" / f"{index:05d}.npz", audio16=audio16, audio24=audio24,
                              f0=frame_f0(audio16), phones=np.ones(100, np.int16), text=np.array("a"))
    (tmp_path / "corpus.json").write_text(json.dumps({"speakers": [{"name": "voice"}],
                                                      "validation_sentences": [1]}))
    corpus.run_jobs(plan_shift_jobs(tmp_path, ["voice"], {1}, copies=1, spread=6, seed=3), workers=1)
    [copy] = sorted((tmp_path / "voice").glob("*.shift*.npz"))
    assert copy.name.startswith("00000.shift")
    shifted = Corpus(tmp_path, min_seconds=0).train
    semitones = [u.semitones for u in shifted if u.semitones]
    assert len(shifted) == 2 and len(semitones) == 1 and 2 <= abs(semitones[0]) <= 6
    assert [u.semitones for u in Corpus(tmp_path, min_seconds=0, pitch_shifted=False).train] == [0]
    u = np.load(copy)
    ratio = 2 ** (semitones[0] / 12)
    tracked = frame_f0(u["audio16"])[10:-10]
    assert np.median(tracked[tracked > 0]) == pytest.approx(150.0 * ratio, rel=0.02)
    assert np.allclose(u["f0"], frame_f0(audio16) * ratio) and u["phones"].tolist() == [1] * 100
    assert len(u["audio16"]) == len(audio16) and len(u["audio24"]) == len(audio24)
