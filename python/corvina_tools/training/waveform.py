"""The waveform generator: phone features, pitch and a speaker embedding to
24 kHz samples, through two upsampling stages with residual stacks, a
magnitude and phase estimate per band, inverse transforms with overlap-add,
and a four-band synthesis filter."""
import math

import numpy as np
import torch
import torch.nn.functional as F
from torch import nn

from ..layouts import WAVEFORM_LAYOUT
from .layers import (CausalConv1d, CausalConvTranspose1d, Network, ResidualConvBlock, channels_last,
                     run_gru, transposed_conv)

HOP = 240


class ResidualStack(nn.Module):
    """Mean of three residual blocks (kernels 3, 7, 11) of three dilated stages each."""
    KERNELS, DILATIONS = (3, 7, 11), (1, 1, 3, 1, 5, 1)

    def __init__(self, channels):
        super().__init__()
        self.blocks = nn.ModuleList(
            nn.ModuleList(CausalConv1d(channels, channels, k, dilation=d) for d in self.DILATIONS)
            for k in self.KERNELS)

    def forward(self, x, state=None):
        results = []
        for convs in self.blocks:
            r = x
            for first, second in zip(convs[0::2], convs[1::2]):
                r = r + second(F.silu(first(F.silu(r), state)), state)
            results.append(r)
        return (results[2] + results[0] + results[1]) * (1 / 3)   # the engine's order: 11, 3, 7


def band_filters(bands=4, taps=63, cutoff=0.071, beta=9.0):
    """Cosine-modulated synthesis filters from a Kaiser-window low-pass
    prototype: a starting point where each band already lands in its own
    quarter of the spectrum (the filters train from there)."""
    n = np.arange(taps) - (taps - 1) / 2
    prototype = np.sinc(2 * cutoff * n) * 2 * cutoff * np.kaiser(taps, beta)
    prototype /= prototype.sum()
    k = np.arange(bands)[:, None]
    phase = (-1.0) ** k * np.pi / 4
    return 2 * prototype * np.cos((2 * k + 1) * np.pi / (2 * bands) * n + phase)


class WaveformGenerator(Network):
    LAYOUT = WAVEFORM_LAYOUT
    BANDS, BINS, FFT, HOP, TAPS = 4, 9, 16, 4, 63

    def __init__(self):
        super().__init__()
        self.phone_proj = nn.Linear(256, 256)
        self.pitch_embedding = nn.Embedding(384, 256)
        self.pitch_feat_proj = nn.Linear(4, 256)
        self.pre_conv = CausalConv1d(256, 256, 7)
        self.norm1 = nn.LayerNorm(256)
        self.blocks = nn.ModuleList(ResidualConvBlock(256, 17, 768) for _ in range(4))
        self.norm2 = nn.LayerNorm(256)
        self.post_conv = CausalConv1d(256, 256, 7)
        self.upsample1 = CausalConvTranspose1d(256, 128, 10, stride=5)
        self.upsample2 = CausalConvTranspose1d(128, 64, 6, stride=3)
        self.stack1 = ResidualStack(128)
        self.stack2 = ResidualStack(64)
        self.logmag = CausalConv1d(64, 36, 7)
        self.gru = nn.GRU(64, 128, batch_first=True)
        self.band_filter = nn.Parameter(torch.tensor(band_filters(self.BANDS, self.TAPS), dtype=torch.float32))
        # Overlap-add of the windowed inverse transforms as a transposed
        # convolution: frame sample k lands at 4 t + k, weighted by the Hann
        # window, the overlap normalisation 2/3 and the band gain 4.
        window = torch.sin(math.pi * torch.arange(self.FFT) / self.FFT) ** 2
        self.register_buffer("overlap", (torch.diag(window) * (2 / 3 * 4))[:, None, :], persistent=False)
        with torch.no_grad():
            self.pitch_embedding.weight.mul_(0.1)
            self.logmag.bias.fill_(-4.0)         # start quiet: exp of the log-magnitude

    def conditioning(self, phone, pitch, pitch_features, speaker):
        """Per-frame inputs [B, T, ...] and speaker rows [B, 256] -> [B, T, 256]."""
        return (self.phone_proj(phone) + self.pitch_embedding(pitch.long()) + self.pitch_feat_proj(pitch_features)
                + speaker[:, None, :])

    def forward(self, phone, pitch, pitch_features, speaker, state=None):
        """phone [B, T, 256], pitch [B, T] int, pitch_features [B, T, 4],
        speaker [B, 256] -> samples [B, 240 T]."""
        return self.synthesize(self.spectra(phone, pitch, pitch_features, speaker, state), state)

    def spectra(self, phone, pitch, pitch_features, speaker, state=None):
        """The per-band short spectra [B, 15 T, 36] (complex) the frame's
        features predict: magnitudes from the convolution, directions from
        the recurrent unit."""
        x = self.pre_conv(F.silu(self.conditioning(phone, pitch, pitch_features, speaker)).transpose(1, 2), state)
        x = channels_last(x, self.norm1)
        for block in self.blocks:
            x = block(x, state)
        x = F.silu(self.post_conv(channels_last(x, self.norm2), state))
        x = self.stack1(self.upsample1(x, state), state)
        x = F.silu(self.stack2(self.upsample2(F.silu(x), state), state))          # [B, 64, 15 T]
        magnitude = torch.exp(self.logmag(x, state)).transpose(1, 2)              # [B, 15 T, 36]
        h = run_gru(self.gru, x.transpose(1, 2), state)                            # [B, 15 T, 128]
        c = torch.complex(h[..., 0:72:2], h[..., 1:72:2])
        return c * (magnitude / (c.abs() + 1e-6))

    def synthesize(self, spectra, state=None):
        """Band spectra [B, S, 36] -> samples [B, 16 S]: inverse transforms,
        overlap-add and the band merge."""
        batch, steps = spectra.shape[:2]
        frames = torch.fft.irfft(spectra.view(batch, steps, self.BANDS, self.BINS), n=self.FFT)   # [B, S, 4, 16]
        frames = frames.permute(0, 2, 3, 1).reshape(batch * self.BANDS, self.FFT, steps)
        bands = transposed_conv(frames, self.overlap, self.HOP, state, "overlap")   # [B 4, 1, 4 S]
        # Zero-stuffing by 4 then the 63-tap filter (tap 62 on the newest
        # position) is a stride-4 transposed convolution with the taps reversed.
        merge = self.band_filter.flip(-1)[:, None, :]
        out = transposed_conv(bands.view(batch, self.BANDS, -1), merge, self.BANDS, state, "merge")
        return out.view(batch, -1)

    def step(self, phone, pitch, pitch_features, speaker, state):
        """One frame: phone [B, 256], pitch [B], pitch_features [B, 4] -> [B, 240]."""
        return self(phone[:, None], pitch[:, None], pitch_features[:, None], speaker, state)
