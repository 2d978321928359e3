"""The pitch estimator: a spectral and lag front end (no parameters), a
causal convolution network scoring 384 pitch bins, and the decoder that
turns scores into the bin and pitch features the generator takes."""
import torch
import torch.nn.functional as F
from torch import nn

from ..layouts import PITCH_LAYOUT
from .layers import CausalConv1d, Network, ResidualConvBlock, channels_last, gelu

HOP = 160


class PitchEstimator(Network):
    LAYOUT = PITCH_LAYOUT
    HISTORY, NEWEST, LAGS, SPECTRUM, WINDOW, OCTAVE, BINS = 560, 304, 256, 64, 48, 96, 384

    def __init__(self):
        super().__init__()
        self.spectral_in = nn.Linear(192, 192)
        self.spectral_out = nn.Linear(192, 192)
        self.lag_in = nn.Linear(256, 192)
        self.lag_out = nn.Linear(192, 192)
        self.conv = CausalConv1d(192, 192, 3)
        self.conv_norm = nn.LayerNorm(192)
        self.blocks = nn.ModuleList(ResidualConvBlock(192, 33, 576) for _ in range(6))
        self.out_norm = nn.LayerNorm(192)
        self.head = nn.Linear(192, self.BINS)

    def front_end(self, hist, previous):
        """hist [B, T, 560] -> spectral [B, T, 192], lag [B, T, 256], loudness [B, T].

        previous [B, 64]: the spectrum of the frame before the first one.
        Returns the last frame's spectrum too, for the next call.
        """
        spectrum = torch.fft.rfft(hist)
        x = spectrum[..., :self.SPECTRUM]
        advance = x * torch.cat([previous[:, None], x[:, :-1]], dim=1).conj()
        advance = advance / (advance.abs() + 1e-5)
        spectral = torch.cat([torch.log10(x.abs() + 1e-5), advance.real, advance.imag], dim=-1)
        # corr[s] = sum_m hist[s + m] * newest[m]: lag 256 - s, no wrap-around at this length.
        newest = hist[..., self.HISTORY - self.NEWEST:]
        corr = torch.fft.irfft(spectrum * torch.fft.rfft(newest, n=self.HISTORY).conj(), n=self.HISTORY)
        energy = F.pad(torch.cumsum(hist.double() ** 2, dim=-1), (1, 0))
        energy = (energy[..., self.NEWEST:] - energy[..., :-self.NEWEST])[..., :self.LAGS + 1].float()
        shifted = (energy[..., :self.LAGS] - 2 * corr[..., :self.LAGS]).flip(-1)   # lag 1 first
        lag = torch.sqrt(torch.clamp(energy[..., -1:] + shifted, min=0) * (2 / self.NEWEST))
        return spectral, lag, 0.5 * torch.log10(energy[..., -1] + 1e-5), x[:, -1]

    def network(self, spectral, lag, state=None):
        """Front-end features [B, T, ...] -> bin scores [B, T, 384]."""
        h = self.spectral_out(gelu(self.spectral_in(spectral))) + self.lag_out(gelu(self.lag_in(lag)))
        x = channels_last(self.conv(h.transpose(1, 2), state), self.conv_norm)
        for block in self.blocks:
            x = block(x, state)
        return self.head(self.out_norm(x.transpose(1, 2)))

    def windows(self, samples, state=None):
        """samples [B, 160 T] -> each frame's 560-sample history [B, T, 560]."""
        past = None if state is None else state.get("history")
        if past is None:
            past = samples.new_zeros(samples.shape[0], self.HISTORY - HOP)
        hist = torch.cat([past, samples], dim=-1)
        if state is not None:
            state["history"] = hist[:, hist.shape[-1] - (self.HISTORY - HOP):]
        return hist.unfold(-1, self.HISTORY, HOP)

    def scores(self, samples, state=None):
        """samples [B, 160 T] -> bin scores [B, T, 384] and loudness [B, T]:
        what training needs (the front end has no parameters)."""
        hist = self.windows(samples, state)
        previous = None if state is None else state.get("spectrum")
        if previous is None:
            previous = torch.zeros(hist.shape[0], self.SPECTRUM, dtype=torch.complex64, device=hist.device)
        with torch.no_grad():
            spectral, lag, loudness, last = self.front_end(hist, previous)
        if state is not None:
            state["spectrum"] = last
        return self.network(spectral, lag, state), loudness

    def decode(self, scores, loudness):
        """Scores [B, T, 384] -> pitch bin [B, T], features [B, T, 4]
        (loudness, the no-pitch probability, the octave ratios)."""
        p = torch.softmax(scores, dim=-1)
        p0 = p[..., 0].clone()
        p[..., 0] = -100.0                          # bin 0 is reported apart, never chosen
        sums = p.double().unfold(-1, self.WINDOW, 1).sum(-1)
        j = sums.argmax(-1, keepdim=True)
        best = sums.gather(-1, j)
        below = sums.gather(-1, (j - self.OCTAVE).clamp(min=0)) / best
        above = sums.gather(-1, (j + self.OCTAVE).clamp(max=sums.shape[-1] - 1)) / best
        lower = torch.where(j > self.OCTAVE, below, 0.0)[..., 0]
        upper = torch.where(j + self.OCTAVE < sums.shape[-1], above, 0.0)[..., 0]
        offsets = torch.arange(self.WINDOW, device=scores.device)
        window = p.gather(-1, j + offsets)
        pitch = j[..., 0] + window.argmax(-1)
        return pitch, torch.stack([loudness, p0, lower.float(), upper.float()], dim=-1)

    def forward(self, samples, state=None):
        """samples [B, 160 T] -> pitch bins [B, T], pitch features [B, T, 4]."""
        return self.decode(*self.scores(samples, state))

    def step(self, frame, state):
        """One frame [B, 160] -> bins [B], features [B, 4], history in state."""
        bins, features = self(frame, state)
        return bins[:, 0], features[:, 0]
