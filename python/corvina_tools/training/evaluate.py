"""Measured quality of a model directory on held-out speech, converted
through the engine exactly as `corvina convert` does:

- intelligibility: phone error rate of the model's own phone recogniser
  (phone extractor + the linear head kept from training) on the input and
  on the converted output, against the sentence's phone sequence;
- pitch following: gross pitch error of the output's pitch contour against
  the input's shifted by the requested semitones (frames voiced in both;
  an error is a deviation of more than 20 %), and the share of the input's
  voiced frames the tracker still finds voiced in the output;
- breathiness: the harmonics-to-noise ratio (dB, frames the tracker finds
  unvoiced count as 0) of input and output over the input's voiced frames;
- speaker similarity: each voice summarised by the mean and deviation of
  its MFCCs (timbre and vocal-tract shape, averaged over the words), cosine
  similarity to every training speaker's summary: how often the output is
  closer to its target speaker than to the source, how often the target is
  the nearest of all training speakers, and the target's mean rank.

`python -m corvina_tools.training.evaluate CORPUS MODEL_DIR`
"""
import argparse
import json
import os

import numpy as np
import soxr
import torch

from ..converter import Converter
from ..model_files import PHONE
from ..model_set import ModelSet
from .alignment import frame_f0
from .data import Corpus
from .losses import collapse, edit_distance
from .parameter_files import load_parameters
from .phone import PhoneExtractor
from ..default_model import speaker_names as read_speaker_names
from .stages import RECOGNISER_HEAD


class Recogniser:
    """Phone extractor and the training head: greedy phone sequences."""

    def __init__(self, model_dir):
        self.network = load_parameters(PhoneExtractor(), os.path.join(model_dir, PHONE.file_name)).eval()
        head = np.load(os.path.join(model_dir, RECOGNISER_HEAD))
        self.weight, self.bias = torch.from_numpy(head["weight"]), torch.from_numpy(head["bias"])

    def __call__(self, audio16):
        with torch.no_grad():
            features = self.network(torch.from_numpy(np.ascontiguousarray(audio16, np.float32))[None])[0]
            return collapse((features @ self.weight.T + self.bias).argmax(-1).numpy())


def voice_summary(audio, rate):
    import librosa
    mfcc = librosa.feature.mfcc(y=audio.astype(np.float32), sr=rate, n_mfcc=20, n_fft=512, hop_length=160)[1:]
    loud = librosa.feature.rms(y=audio, frame_length=512, hop_length=160)[0]
    keep = loud > 0.1 * loud.max()
    m = mfcc[:, keep[:mfcc.shape[1]]]
    return np.concatenate([m.mean(1), m.std(1)])


def cosine(a, b):
    return float(a @ b / (np.linalg.norm(a) * np.linalg.norm(b) + 1e-9))


def gross_pitch_error(f_in, output16, semitones):
    """f_in: the input's pitch per frame (frame_f0), 0 where unvoiced."""
    f_out = frame_f0(output16)
    n = min(len(f_in), len(f_out))
    f_in, f_out = f_in[:n] * 2 ** (semitones / 12), f_out[:n]
    both = (f_in > 0) & (f_out > 0)
    kept = float(both.sum() / max(1, (f_in > 0).sum()))
    if not both.any():
        return 1.0, kept
    return float(np.mean(np.abs(f_out[both] / f_in[both] - 1) > 0.2)), kept


def harmonicity(audio16, voiced):
    """Mean harmonics-to-noise ratio in dB over the `voiced` 10 ms frames."""
    import parselmouth
    hnr = parselmouth.Sound(audio16.astype(np.float64), 16000).to_harmonicity_cc(time_step=0.01).values[0]
    hnr = np.clip(hnr, 0, None)          # unvoiced frames read -200 dB
    n = min(len(hnr), len(voiced))
    return float(hnr[:n][voiced[:n]].mean()) if voiced[:n].any() else 0.0


def evaluate(corpus_dir, model_dir, source_speakers=None, sentences=8, shift=4.0, log=print):
    index = json.load(open(os.path.join(corpus_dir, "corpus.json")))
    if source_speakers is None:
        source_speakers = [s["name"] for s in index["speakers"] if s.get("held_out")]
    sources = Corpus(corpus_dir, source_speakers, min_seconds=0)
    utterances = (sources.validation or sources.train)[:sentences]
    models = ModelSet.load(model_dir)
    names = read_speaker_names(model_dir, models.n_speakers)
    training = Corpus(corpus_dir, None, min_seconds=0, pitch_shifted=False)
    summaries = {}
    for u in training.train:
        summaries.setdefault(training.speakers[u.speaker], []).append(voice_summary(u.audio24, 24000))
    centroid = {name: np.mean(v, axis=0) for name, v in summaries.items()}
    recognise = Recogniser(model_dir)
    figures = {"input_phone_error_rate": [], "output_phone_error_rate": [], "gross_pitch_error": [],
               "gross_pitch_error_shifted": [], "closer_to_target": [], "identified_as_target": [],
               "target_rank": [], "voicing_kept": [], "input_harmonicity_db": [], "output_harmonicity_db": []}
    for u in utterances:
        truth = list(u.phone_sequence) if u.phone_sequence is not None else None
        source_summary = voice_summary(u.audio24, 24000)
        f_in = frame_f0(u.audio16)
        voiced = f_in > 0
        figures["input_harmonicity_db"].append(harmonicity(u.audio16, voiced))
        if truth:
            figures["input_phone_error_rate"].append(edit_distance(recognise(u.audio16), truth) / len(truth))
        for row, name in enumerate(names):
            for semitones in ((0.0, shift) if row == 0 else (0.0,)):
                converter = Converter(models, speaker=row, pitch_shift=semitones)
                out = np.concatenate([converter.process(u.audio16), converter.flush()])
                out16 = soxr.resample(out, 24000, 16000).astype(np.float32)
                gpe, kept = gross_pitch_error(f_in, out16, semitones)
                figures["gross_pitch_error_shifted" if semitones else "gross_pitch_error"].append(gpe)
                if semitones:
                    continue
                figures["voicing_kept"].append(kept)
                figures["output_harmonicity_db"].append(harmonicity(out16, voiced))
                if truth:
                    figures["output_phone_error_rate"].append(edit_distance(recognise(out16), truth) / len(truth))
                if name in centroid:
                    s = voice_summary(out, 24000)
                    ranked = sorted(centroid, key=lambda k: -cosine(s, centroid[k]))
                    figures["target_rank"].append(ranked.index(name) + 1)
                    figures["identified_as_target"].append(ranked[0] == name)
                    figures["closer_to_target"].append(cosine(s, centroid[name]) > cosine(s, source_summary))
        log(f"{os.path.basename(u.path)}: done")
    result = {k: float(np.mean(v)) for k, v in figures.items() if v}
    result.update(source_speakers=source_speakers, sentences=len(utterances), speakers=len(names),
                  shift_semitones=shift)
    return result


def main(argv=None):
    parser = argparse.ArgumentParser(prog="python -m corvina_tools.training.evaluate", description=__doc__)
    parser.add_argument("corpus")
    parser.add_argument("model")
    parser.add_argument("--sources", help="comma-separated source speakers (default: the held-out voices)")
    parser.add_argument("--sentences", type=int, default=8)
    parser.add_argument("--json", help="write the figures here too")
    args = parser.parse_args(argv)
    result = evaluate(args.corpus, args.model, args.sources.split(",") if args.sources else None, args.sentences)
    print(json.dumps(result, indent=1))
    if args.json:
        with open(args.json, "w") as f:
            json.dump(result, f, indent=1)
    return 0


if __name__ == "__main__":
    raise SystemExit(main())
