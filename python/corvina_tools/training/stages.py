"""The training stages: pitch estimator, phone extractor, waveform generator
(also used to fine-tune a new voice). Each trains one network of a model
directory and writes its file there when it ends."""
import json
import os

import numpy as np
import torch
import torch.nn.functional as F
from torch import nn

from ..default_model import SPEAKER_NAMES
from ..default_model import speaker_names as read_speaker_names
from ..model_files import PHONE, PITCH, SPEAKERS, WAVEFORM
from ..pitch_bins import BINS_PER_SEMITONE, nearest_bin
from .critics import Critics
from .data import IN_HOP, OUT_HOP, Corpus, cut
from .losses import collapse, edit_distance, mel_loss, phase_loss, pitch_targets, spectral_loss
from .parameter_files import load_parameters, save_parameters, write_speakers
from .phone import PhoneExtractor
from .pitch import PitchEstimator
from .trainer import Stage
from .waveform import WaveformGenerator

RECOGNISER_HEAD = "phone_recogniser.npz"     # reads phones from the features; for evaluation only
REFERENCE_VOICE = "flite-kal16"             # every sentence's spectral envelope target comes from this voice
ENVELOPE_BANDS = 64


def augment(audio, rng):
    """Random level (about ±10 dB) and a little noise, so the extractors do
    not learn the corpus's levels."""
    gain = 10 ** rng.uniform(-0.5, 0.3)
    noise = rng.uniform(0, 0.003) * rng.standard_normal(audio.shape).astype(np.float32)
    return audio * gain + noise


def validation_set(corpus, count, frames):
    """Up to `count` validation utterances spread over speakers, cut to `frames`."""
    pool = corpus.validation or corpus.train
    step = max(1, len(pool) // count)
    return [u for u in pool[::step][:count] if u.frames >= 20][:count] or pool[:count]


class PitchTraining(nn.Module):
    def __init__(self, network):
        super().__init__()
        self.network = network

    def forward(self, samples, targets):
        scores, _ = self.network.scores(samples)
        loss = -(targets * F.log_softmax(scores, dim=-1)).sum(-1).mean()
        return loss, {"loss": loss.item()}


class GrowingCorpus:
    """Mixed into the extractor stages: new utterances of a corpus that is
    still being built join the training set every few hundred steps."""
    refresh_steps = 300

    def _draw(self, rng, labelled=False):
        self._calls = getattr(self, "_calls", 0) + 1
        if self._calls % self.refresh_steps == 0:
            self.corpus.refresh()
        return self.corpus.segments(rng, self.size, self.frames, labelled)


class PitchStage(GrowingCorpus, Stage):
    name = "pitch"
    learning_rate = 5e-4

    def __init__(self, corpus, model_dir, batch=8, frames=200, device="cpu"):
        self.corpus, self.model_dir, self.size, self.frames, self.device = corpus, model_dir, batch, frames, device
        self.network = PitchEstimator()
        self.trainable = PitchTraining(self.network).to(device)

    def batch(self, rng):
        picks = self._draw(rng)
        audio = np.stack([augment(cut(u.audio16, s, self.frames, IN_HOP), rng) for u, s in picks])
        f0 = np.stack([cut(u.f0, s, self.frames) for u, s in picks])
        return torch.from_numpy(audio).to(self.device), pitch_targets(f0).to(self.device)

    def validate(self):
        errors, voicing, voiced_frames, frames = 0, 0, 0, 0
        for u in validation_set(self.corpus, 40, None):
            bins, features = self.network(torch.from_numpy(u.audio16[None]).to(self.device))
            bins, p0 = bins[0].cpu().numpy(), features[0, :, 1].cpu().numpy()
            true = nearest_bin(u.f0)
            voiced = true > 0
            said_voiced = p0 < 0.5
            voicing += int(np.sum(said_voiced != voiced))
            errors += int(np.sum(np.abs(bins[voiced] - true[voiced]) > BINS_PER_SEMITONE))
            voiced_frames += int(voiced.sum())
            frames += len(true)
        return {"pitch_error": errors / max(voiced_frames, 1), "voicing_error": voicing / max(frames, 1)}

    def finish(self):
        save_parameters(self.network, os.path.join(self.model_dir, PITCH.file_name))


class PhoneTraining(nn.Module):
    def __init__(self, network, classes, bands=0):
        super().__init__()
        self.network = network
        self.head = nn.Linear(256, classes)
        self.envelope_head = nn.Linear(256, bands) if bands else None

    def forward(self, samples, labels, envelopes=None):
        features = self.network(samples)
        logits = self.head(features)
        loss = F.cross_entropy(logits.transpose(1, 2), labels)
        figures = {"loss": loss.item(), "accuracy": (logits.argmax(-1) == labels).float().mean().item()}
        if envelopes is not None:
            envelope = F.l1_loss(self.envelope_head(features), envelopes)
            loss = loss + envelope
            figures["envelope"] = envelope.item()
        return loss, figures


class PhoneStage(GrowingCorpus, Stage):
    """Content features trained as frame-level phone classification through
    a linear head that is not exported: the 256 features are what the head
    reads the phone from, on every speaker alike.

    Where the corpus has every sentence spoken by a reference voice, a second
    head also regresses that voice's spectral envelope, aligned to each
    frame by dynamic time warping: a dense target that is the same for all
    speakers of a sentence, so the features learn content quickly and carry
    no trace of who spoke it."""
    name = "phone"
    learning_rate = 5e-4
    refresh_steps = 10 ** 9          # the envelopes are computed once, for the utterances loaded

    def __init__(self, corpus, model_dir, batch=8, frames=150, device="cpu", reference=REFERENCE_VOICE):
        self.corpus, self.model_dir, self.size, self.frames, self.device = corpus, model_dir, batch, frames, device
        if not corpus.phones:
            raise ValueError(f"{corpus.folder}: the corpus has no phone inventory to train the phone extractor on")
        self.envelopes = reference_envelopes(corpus, reference) if reference in corpus.speakers else None
        self.network = PhoneExtractor()
        bands = ENVELOPE_BANDS if self.envelopes else 0
        self.trainable = PhoneTraining(self.network, len(corpus.phones), bands).to(device)

    def batch(self, rng):
        picks = self._draw(rng, labelled=True)
        audio = np.stack([augment(cut(u.audio16, s, self.frames, IN_HOP), rng) for u, s in picks])
        labels = np.stack([cut(u.phones, s, self.frames) for u, s in picks])
        tensors = [torch.from_numpy(audio), torch.from_numpy(labels)]
        if self.envelopes:
            tensors.append(torch.from_numpy(np.stack([
                np.pad(self.envelopes[u.path][s:s + self.frames], ((0, max(0, s + self.frames - u.frames)), (0, 0)))
                for u, s in picks])))
        return [t.to(self.device) for t in tensors]

    def validate(self):
        return phone_figures(self.trainable, validation_set(self.corpus, 40, None), self.device)

    def finish(self):
        save_parameters(self.network, os.path.join(self.model_dir, PHONE.file_name))
        head = self.trainable.head
        np.savez(os.path.join(self.model_dir, RECOGNISER_HEAD), weight=head.weight.detach().cpu().numpy(),
                 bias=head.bias.detach().cpu().numpy(), phones=np.array(self.corpus.phones))


def log_envelope(audio16):
    """Log mel spectrum per 10 ms frame over the 25 ms that end with the
    frame (what a causal network has heard), standardised to about unit
    scale: [frames, 64]."""
    import librosa
    frames = len(audio16) // IN_HOP
    # The 400-sample window sits 56 samples into each 512-sample segment, so
    # this lead puts the window of frame i on the samples up to its end.
    padded = np.pad(audio16.astype(np.float32), (400 - IN_HOP + 56, 512))
    mel = librosa.feature.melspectrogram(y=padded, sr=16000, n_fft=512, win_length=400, hop_length=IN_HOP,
                                         n_mels=ENVELOPE_BANDS, center=False, fmin=50, fmax=8000)[:, :frames]
    level = np.log(mel + 1e-8)
    level = np.maximum(level, level.max() - 12)          # floor 52 dB under the loudest
    return ((level + 6.0) / 4.0).T.astype(np.float32)


def reference_envelopes(corpus, reference):
    """For each utterance: the reference voice's envelope of the same
    sentence, frame by frame, mapped onto this utterance's frames by dynamic
    time warping."""
    import librosa

    from .alignment import _mfcc
    row = corpus.speakers.index(reference)
    ours = {u.sentence: u for u in corpus.train + corpus.validation if u.speaker == row}
    cache = {}
    out = {}
    for u in corpus.train + corpus.validation:
        ref = ours.get(u.sentence)
        if ref is None or u.phones is None:
            continue
        if ref.sentence not in cache:
            cache[ref.sentence] = (log_envelope(ref.audio16), _mfcc(ref.audio16, ref.frames))
        envelope, ref_mfcc = cache[ref.sentence]
        if u is ref:
            out[u.path] = envelope
            continue
        _, path = librosa.sequence.dtw(X=ref_mfcc, Y=_mfcc(u.audio16, u.frames), metric="euclidean")
        total = np.zeros((u.frames, ENVELOPE_BANDS), np.float32)
        count = np.zeros(u.frames, np.float32)
        np.add.at(total, path[:, 1], envelope[path[:, 0]])
        np.add.at(count, path[:, 1], 1)
        out[u.path] = total / np.maximum(count, 1)[:, None]
    return out


def phone_figures(training, utterances, device="cpu"):
    """Frame accuracy and phone error rate (greedy, collapsed frame labels
    against the sentence's phone sequence)."""
    correct = frames = edits = length = 0
    for u in utterances:
        if u.phones is None:
            continue
        logits = training.head(training.network(torch.from_numpy(u.audio16[None]).to(device)))[0]
        guess = logits.argmax(-1).cpu().numpy()
        n = min(len(guess), len(u.phones))
        correct += int(np.sum(guess[:n] == u.phones[:n]))
        frames += n
        edits += edit_distance(collapse(guess), list(u.phone_sequence))
        length += len(u.phone_sequence)
    return {"phone_error_rate": edits / max(length, 1), "frame_accuracy": correct / max(frames, 1)}


def engine_inputs(model_dir, utterances, streams=16, threads=2):
    """What the generator is given in use, per utterance: the phone features,
    pitch bins and pitch features the engine itself computes from the 16 kHz
    audio with the model directory's extractors, from a fresh context.
    Utterances run as the streams of the engine's batch calls, groups of
    them on several threads (the calls release the interpreter lock)."""
    from concurrent.futures import ThreadPoolExecutor

    import corvina

    phone, pitch = corvina.PhoneExtractor(), corvina.PitchEstimator()
    phone.read_parameters(os.path.join(model_dir, PHONE.file_name))
    pitch.read_parameters(os.path.join(model_dir, PITCH.file_name))
    order = sorted(range(len(utterances)), key=lambda i: utterances[i].frames)
    inputs = [None] * len(utterances)

    def run(first):
        group = [utterances[i] for i in order[first:first + streams]]
        frames = max(u.frames for u in group)
        audio = np.zeros((len(group), frames * IN_HOP), np.float32)
        for row, u in enumerate(group):
            audio[row, :len(u.audio16)] = u.audio16
        phone_contexts = [phone.new_context(1) for _ in group]
        pitch_contexts = [pitch.new_context(1) for _ in group]
        features = np.empty((len(group), frames, 256), np.float16)
        bins = np.empty((len(group), frames), np.int16)
        pitch_features = np.empty((len(group), frames, 4), np.float32)
        for t in range(frames):
            x = np.ascontiguousarray(audio[:, t * IN_HOP:(t + 1) * IN_HOP])
            features[:, t] = phone.batch(x, phone_contexts)
            bins[:, t], pitch_features[:, t] = pitch.batch(x, pitch_contexts)
        for row, i in enumerate(order[first:first + streams]):
            n = utterances[i].frames
            inputs[i] = (torch.from_numpy(features[row, :n].copy()), torch.from_numpy(bins[row, :n].copy()),
                         torch.from_numpy(pitch_features[row, :n].copy()))

    with ThreadPoolExecutor(threads) as pool:
        list(pool.map(run, range(0, len(order), streams)))
    return inputs


def cached_engine_inputs(model_dir, train, validation, cache):
    """engine_inputs for both sets, kept per utterance in the file `cache`
    (if given): a later run with the same extractor files computes only the
    utterances that are new (e.g. pitch-shifted copies added since)."""
    import hashlib
    digest = hashlib.sha256()
    for name in (PHONE.file_name, PITCH.file_name):
        with open(os.path.join(model_dir, name), "rb") as f:
            digest.update(f.read())
    key = digest.hexdigest()
    known = {}
    if cache and os.path.exists(cache):
        saved = torch.load(cache, weights_only=False)
        if saved.get("key") == key:
            known = saved["inputs"]
    todo = [u for u in train + validation if u.path not in known]
    if todo:
        known.update(zip((u.path for u in todo), engine_inputs(model_dir, todo)))
        if cache:
            torch.save({"key": key, "inputs": known}, cache)
    return [known[u.path] for u in train], [known[u.path] for u in validation]


class GeneratorTraining(nn.Module):
    """The generator and the speaker rows it learns; `fixed` rows (a trained
    model's, when fine-tuning) come first in the table and do not train."""

    FEATURE_MATCHING_WEIGHT = 2.0

    def __init__(self, network, rows, fixed=None, critics=None, phase_weight=0.0):
        super().__init__()
        self.network, self.phase_weight = network, phase_weight
        self.rows = nn.Parameter(rows)
        self.register_buffer("fixed", fixed if fixed is not None else rows.new_zeros(0, rows.shape[1]))
        # Kept in a tuple so the critics are not this module's parameters:
        # they have their own optimiser and are not exported.
        self.critics = (critics,) if critics is not None else ()
        self.last = None

    @property
    def table(self):
        return torch.cat([self.fixed, self.rows])

    def forward(self, phone, bins, pitch_features, rows, target):
        out = self.network(phone, bins, pitch_features, self.table[rows])
        spectral = spectral_loss(out, target)
        mel = mel_loss(out, target)
        loss, figures = spectral + mel, {"spectral": spectral.item(), "mel": mel.item()}
        if self.phase_weight:
            phase = phase_loss(out, target)
            loss = loss + self.phase_weight * phase
            figures["phase"] = phase.item()
        if self.critics and self.training:
            critics = self.critics[0].requires_grad_(False)
            adversarial, matching = critics.generator_loss(out, target)
            critics.requires_grad_(True)
            loss = loss + adversarial + self.FEATURE_MATCHING_WEIGHT * matching
            figures.update(adversarial=adversarial.item(), matching=matching.item())
            self.last = (out.detach(), target)
        return loss, figures

    def critic_loss(self):
        """The critics' loss on the batch the generator last saw."""
        return self.critics[0].loss(*self.last)


class GeneratorStage(Stage):
    """Reconstruct each speaker's 24 kHz audio from the frozen extractors'
    outputs on its 16 kHz version plus the speaker's learned row. With
    `fine_tune`, the model directory's generator and speaker rows are the
    starting point and the corpus's speakers are added as new rows."""
    name = "waveform"
    learning_rate = 3e-4

    def __init__(self, corpus, model_dir, batch=8, frames=50, device="cpu", fine_tune=False, out_dir=None,
                 cache=None, adversarial=False, phase_weight=0.0):
        self.corpus, self.model_dir, self.size, self.frames, self.device = corpus, model_dir, batch, frames, device
        self.out_dir = out_dir or model_dir
        self.network = WaveformGenerator()
        names = list(corpus.speakers)
        rows, fixed = torch.randn(len(names), 256) * 0.1, None
        self.row_of = list(range(len(names)))
        if fine_tune:
            self.name = "finetune"
            load_parameters(self.network, os.path.join(model_dir, WAVEFORM.file_name))
            from ..model_set import read_speakers
            old = torch.from_numpy(read_speakers(os.path.join(model_dir, SPEAKERS.file_name)))
            old_names = read_speaker_names(model_dir, len(old))
            self.row_of = list(range(len(old), len(old) + len(names)))
            fixed, rows = old, old.mean(0, keepdim=True) + 0.05 * torch.randn(len(names), 256)
            names = old_names + names
        self.names = names
        self.critic = Critics().to(device) if adversarial else None
        self.trainable = GeneratorTraining(self.network, rows, fixed, self.critic, phase_weight).to(device)
        self.validation = validation_set(corpus, 24, None)
        self.train_inputs, self.validation_inputs = cached_engine_inputs(model_dir, corpus.train, self.validation,
                                                                         cache)

    def batch(self, rng):
        index = rng.integers(0, len(self.corpus.train), self.size)
        parts = []
        for i in index:
            u, (phone, bins, features) = self.corpus.train[i], self.train_inputs[i]
            s = int(rng.integers(0, max(1, u.frames - self.frames + 1)))
            n = min(self.frames, u.frames - s)
            pad = self.frames - n
            parts.append((F.pad(phone[s:s + n].float(), (0, 0, 0, pad)), F.pad(bins[s:s + n].long(), (0, pad)),
                          F.pad(features[s:s + n], (0, 0, 0, pad)), self.row_of[u.speaker],
                          torch.from_numpy(cut(u.audio24, s, self.frames, OUT_HOP))))
        phone, bins, features, rows, target = zip(*parts)
        to = self.device
        return (torch.stack(phone).to(to), torch.stack(bins).to(to), torch.stack(features).to(to),
                torch.tensor(rows, device=to), torch.stack(target).to(to))

    def validate(self):
        spectral = mel = phase = 0.0
        for u, (phone, bins, features) in zip(self.validation, self.validation_inputs):
            n = min(u.frames, 400)
            rows = torch.tensor([self.row_of[u.speaker]], device=self.device)
            args = (phone[None, :n].float().to(self.device), bins[None, :n].long().to(self.device),
                    features[None, :n].to(self.device), rows,
                    torch.from_numpy(u.audio24[None, :n * OUT_HOP]).to(self.device))
            _, figures = self.trainable(*args)
            spectral += figures["spectral"]
            mel += figures["mel"]
            phase += figures.get("phase", 0.0)
        count = max(len(self.validation), 1)
        figures = {"spectral_loss": spectral / count, "mel_loss": mel / count}
        if self.trainable.phase_weight:
            figures["phase_loss"] = phase / count
        return figures

    def finish(self):
        os.makedirs(self.out_dir, exist_ok=True)
        save_parameters(self.network, os.path.join(self.out_dir, WAVEFORM.file_name))
        write_speakers(self.trainable.table, os.path.join(self.out_dir, SPEAKERS.file_name))
        with open(os.path.join(self.out_dir, SPEAKER_NAMES), "w") as f:
            json.dump(self.names, f, indent=1)




STAGES = {"pitch": PitchStage, "phone": PhoneStage, "waveform": GeneratorStage}


def make_stage(kind, corpus_dir, model_dir, speakers=None, device="cpu", sentences=None, **sizes):
    corpus = Corpus(corpus_dir, speakers, sentences=sentences)
    if kind == "finetune":
        return GeneratorStage(corpus, model_dir, device=device, fine_tune=True, **sizes)
    os.makedirs(model_dir, exist_ok=True)
    return STAGES[kind](corpus, model_dir, device=device, **sizes)
