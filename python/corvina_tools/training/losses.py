"""Losses and figures for training: soft pitch targets, spectral losses for
the generator, edit distance for phone error rates."""
import functools

import numpy as np
import torch
import torch.nn.functional as F

from ..pitch_bins import BINS, HIGHEST_BIN, LOWEST_BIN, hz_to_bin

PITCH_SPREAD = 1.5          # bins: the width of the soft target around the true pitch


def pitch_targets(f0):
    """f0 [B, T] in Hz (0 = unvoiced) -> target distributions [B, T, 384]:
    a narrow Gaussian around the true bin, all of it on bin 0 when unvoiced."""
    true = torch.from_numpy(hz_to_bin(f0.numpy()) if isinstance(f0, torch.Tensor) else hz_to_bin(f0)).float()
    voiced = torch.isfinite(true)
    true = torch.where(voiced, true.clamp(LOWEST_BIN, HIGHEST_BIN), torch.zeros_like(true))
    bins = torch.arange(BINS, dtype=torch.float32)
    weights = torch.exp(-0.5 * ((bins - true[..., None]) / PITCH_SPREAD) ** 2)
    weights[..., 0] = 0.0
    weights = weights / weights.sum(-1, keepdim=True).clamp(min=1e-12)
    unvoiced = torch.zeros(BINS)
    unvoiced[0] = 1.0
    return torch.where(voiced[..., None], weights, unvoiced)


RESOLUTIONS = ((2048, 480), (1024, 240), (512, 120), (256, 60), (128, 30))


def spectral_loss(predicted, target, resolutions=RESOLUTIONS):
    """Multi-resolution short-time spectrum loss: spectral convergence plus
    log-magnitude L1, summed over FFT sizes."""
    total = 0.0
    for n_fft, hop in resolutions:
        window = _window(n_fft, predicted.device)
        p = torch.stft(predicted, n_fft, hop, window=window, return_complex=True).abs()
        t = torch.stft(target, n_fft, hop, window=window, return_complex=True).abs()
        convergence = torch.linalg.norm(t - p) / (torch.linalg.norm(t) + 1e-7)
        total = total + convergence + F.l1_loss(torch.log(p + 1e-5), torch.log(t + 1e-5))
    return total


PHASE_RESOLUTIONS = ((1024, 128), (512, 64))


def phase_loss(predicted, target, resolutions=PHASE_RESOLUTIONS):
    """How far the predicted phase's advance differs from the target's, from
    frame to frame (instantaneous frequency) and from bin to bin (group
    delay), weighted by the target's magnitude: 0 when they agree, about 1
    for random phase. Both are blind to a constant phase offset, which a
    causal generator cannot know, but not to the drift between harmonics
    that magnitude losses barely see and that sounds breathy."""
    total = 0.0
    for n_fft, hop in resolutions:
        window = _window(n_fft, predicted.device)
        p = torch.stft(predicted, n_fft, hop, window=window, return_complex=True)
        t = torch.stft(target, n_fft, hop, window=window, return_complex=True)
        for dim in (-1, -2):
            total = total + _advance_mismatch(_advance(p, dim), _advance(t, dim))
    return total


def _advance(spectrum, dim):
    """Each bin times the conjugate of its predecessor along `dim`: the
    phase advance as an angle, the magnitudes' product as a weight."""
    n = spectrum.shape[dim]
    return spectrum.narrow(dim, 1, n - 1) * spectrum.narrow(dim, 0, n - 1).conj()


def _advance_mismatch(p, t):
    weight = t.abs()
    agreement = (p * t.conj()).real / (p.abs() * weight + 1e-9)
    return (weight * (1 - agreement)).sum() / (weight.sum() + 1e-9)


def mel_loss(predicted, target, rate=24000, n_fft=1024, hop=240, mels=80):
    """L1 between log mel spectrograms."""
    window = _window(n_fft, predicted.device)
    bank = _mel_bank(rate, n_fft, mels).to(predicted.device)
    p = bank @ torch.stft(predicted, n_fft, hop, window=window, return_complex=True).abs()
    t = bank @ torch.stft(target, n_fft, hop, window=window, return_complex=True).abs()
    return F.l1_loss(torch.log(p + 1e-5), torch.log(t + 1e-5))


@functools.lru_cache(maxsize=None)
def _window(n_fft, device):
    return torch.hann_window(n_fft, device=device)


@functools.lru_cache(maxsize=None)
def _mel_bank(rate, n_fft, mels):
    import librosa
    return torch.from_numpy(librosa.filters.mel(sr=rate, n_fft=n_fft, n_mels=mels, fmin=40, fmax=rate / 2)).float()


def edit_distance(a, b):
    """Levenshtein distance between two sequences."""
    previous = np.arange(len(b) + 1)
    for i, x in enumerate(a, 1):
        current = np.empty_like(previous)
        current[0] = i
        for j, y in enumerate(b, 1):
            current[j] = min(previous[j] + 1, current[j - 1] + 1, previous[j - 1] + (x != y))
        previous = current
    return int(previous[-1])


def collapse(labels, blank=0, min_run=3):
    """Frame labels -> the sequence of phones: runs shorter than `min_run`
    frames (30 ms, shorter than a spoken phone) are dropped as flicker,
    repeats merge unless a pause separates them, pauses are left out."""
    runs, start = [], 0
    for i in range(1, len(labels) + 1):
        if i == len(labels) or labels[i] != labels[start]:
            if i - start >= min_run:
                runs.append(int(labels[start]))
            start = i
    out = []
    for x in runs:
        if not out or out[-1] != x:
            out.append(x)
    return [x for x in out if x != blank]
