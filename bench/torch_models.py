"""The phone extractor, pitch estimator and waveform generator written as a
PyTorch user would write them, for comparison with the engine.

Each network reads the engine's half-precision parameter file itself (file
order, file shapes, widened to float32) and runs two ways: step() takes one
10 ms frame and carries its history in a plain dict, forward() takes a whole
recording at once. Layers are ordinary torch.nn modules; the activations are
PyTorch's exact ones, where the engine uses a table exponential and an
approximate reciprocal, so the two agree to single-precision accuracy, not
bit for bit.
"""
import math

import numpy as np
import torch
import torch.nn.functional as F
from torch import nn


def gelu(x):
    return F.gelu(x, approximate="tanh")


def channels_last(x, layer):
    """Apply a per-step layer (Linear, LayerNorm) to a [B, C, T] sequence."""
    return layer(x.transpose(1, 2)).transpose(1, 2)


def transposed_conv(x, weight, stride, state, key):
    """Transposed convolution (no bias) of x [B, C, T] cut to T * stride steps.

    Steps past the cut belong to later frames: in streaming use they are kept
    in state[key] and added to the next frame's first steps.
    """
    y = F.conv_transpose1d(x, weight, stride=stride)
    n = x.shape[-1] * stride
    if state is not None:
        carry = state.get(key)
        if carry is not None:
            y[..., :carry.shape[-1]] += carry
        state[key] = y[..., n:]
    return y[..., :n]


class CausalConv1d(nn.Conv1d):
    """Conv1d that sees only the past. Whole sequences are left-padded with
    zeros; in streaming use the inputs a frame still needs from earlier
    frames are kept in the state dict under the layer itself.

    With streaming_matmul set, streaming calls gather the taps and run one
    matrix product (depthwise: a weighted sum) instead: on one thread
    PyTorch's convolution kernels are several times slower than that on a
    few steps. A tuning step a user may or may not take.
    """
    streaming_matmul = False

    def __init__(self, cin, cout, kernel, stride=1, dilation=1, groups=1, bias=True):
        super().__init__(cin, cout, kernel, stride=stride, dilation=dilation, groups=groups, bias=bias)
        # Frame lengths are multiples of the stride, so this much left context suffices.
        self.context = (kernel - 1) * dilation + 1 - stride

    def forward(self, x, state=None):
        past = None if state is None else state.get(self)
        if past is None:
            past = x.new_zeros(x.shape[0], x.shape[1], self.context)
        x = torch.cat([past, x], dim=-1)
        if state is None:
            return super().forward(x)
        state[self] = x[..., x.shape[-1] - self.context:]
        if not self.streaming_matmul:
            return super().forward(x)
        span = (self.kernel_size[0] - 1) * self.dilation[0] + 1
        taps = x.unfold(-1, span, self.stride[0])[..., ::self.dilation[0]]      # [B, C, T, K]
        if self.groups == 1:
            return F.linear(taps.transpose(1, 2).flatten(2), self.weight.flatten(1), self.bias).transpose(1, 2)
        # Depthwise: weight [C, 1, K] meets the taps of its own channel.
        return (taps * self.weight).sum(-1) + self.bias[:, None]


class CausalConvTranspose1d(nn.ConvTranspose1d):
    """Upsampling layer; each input step's tail spills into the next frame."""

    def forward(self, x, state=None):
        return transposed_conv(x, self.weight, self.stride[0], state, self) + self.bias[:, None]

    def file_tensors(self):
        return [self.weight.permute(1, 0, 2), self.bias]   # the file holds [out][in][k]


class ResidualConvBlock(nn.Module):
    """Depthwise causal conv, normalisation, pointwise pair with GELU, residual."""

    def __init__(self, channels, taps, hidden):
        super().__init__()
        self.depthwise = CausalConv1d(channels, channels, taps, groups=channels)
        self.pointwise1 = nn.Linear(channels, hidden)
        self.pointwise2 = nn.Linear(hidden, channels)

    def forward(self, x, state=None):
        m = self.depthwise(x, state).transpose(1, 2)
        m = F.layer_norm(m, m.shape[-1:])
        return x + self.pointwise2(gelu(self.pointwise1(m))).transpose(1, 2)

    def file_tensors(self):
        d = self.depthwise
        return [d.weight.view(d.out_channels, -1), d.bias, self.pointwise1.weight, self.pointwise1.bias,
                self.pointwise2.weight, self.pointwise2.bias]


def gru_tensors(gru, layers):
    """The file orders each layer as input weight, input bias, state weight, state bias."""
    return [getattr(gru, f"{name}_l{layer}") for layer in range(layers)
            for name in ("weight_ih", "bias_ih", "weight_hh", "bias_hh")]


def run_gru(gru, x, state):
    """nn.GRU over x [B, T, C], its hidden state carried in streaming use."""
    y, h = gru(x, None if state is None else state.get(gru))
    if state is not None:
        state[gru] = h
    return y


class StreamingNetwork(nn.Module):
    """Parameter-file loading and the state dict shared by the three networks."""

    def load(self, path):
        tensors = self.file_tensors()
        flat = np.fromfile(path, dtype="<f2")
        expected = sum(t.numel() for t in tensors)
        if flat.size != expected:
            raise ValueError(f"{path}: {flat.size} half floats, expected {expected}")
        flat = torch.from_numpy(flat.astype(np.float32))
        offset = 0
        with torch.no_grad():
            for t in tensors:
                t.copy_(flat[offset:offset + t.numel()].view(t.shape))
                offset += t.numel()
        return self.requires_grad_(False).eval()

    @staticmethod
    def new_state():
        return {}


class PhoneExtractor(StreamingNetwork):
    FRONT = [(1, 32, 10, 5), (32, 64, 3, 2), (64, 128, 3, 2), (128, 256, 3, 2), (256, 256, 3, 2), (256, 256, 2, 2)]

    def __init__(self):
        super().__init__()
        self.front = nn.ModuleList(CausalConv1d(i, o, k, stride=s, bias=False) for i, o, k, s in self.FRONT)
        self.input_dense = nn.Linear(256, 256)
        self.gru = nn.GRU(256, 256, num_layers=3, batch_first=True)
        self.causal_conv = CausalConv1d(256, 256, 7)
        self.causal_norm = nn.LayerNorm(256)
        self.blocks = nn.ModuleList(ResidualConvBlock(256, 17, 768) for _ in range(8))
        self.out_norm = nn.LayerNorm(256)
        self.output_dense = nn.Linear(256, 256)

    def file_tensors(self):
        t = [self.front[0].weight.view(32, 10)] + [conv.weight for conv in self.front[1:]]
        t += [self.input_dense.weight, self.input_dense.bias] + gru_tensors(self.gru, 3)
        t += [self.causal_conv.weight, self.causal_conv.bias, self.causal_norm.weight, self.causal_norm.bias]
        t += [x for block in self.blocks for x in block.file_tensors()]
        return t + [self.out_norm.weight, self.out_norm.bias, self.output_dense.weight, self.output_dense.bias]

    def forward(self, samples, state=None):
        """samples: n * 160 float32 -> phone features [n, 256]."""
        x = samples.view(1, 1, -1)
        for conv in self.front:
            x = gelu(conv(x, state))
        x = x.transpose(1, 2)
        u = self.input_dense(F.layer_norm(x, (256,)))
        x = (u + run_gru(self.gru, u, state)).transpose(1, 2)
        x = channels_last(self.causal_conv(x, state), self.causal_norm)
        for block in self.blocks:
            x = block(x, state)
        return self.output_dense(gelu(self.out_norm(x.transpose(1, 2))))[0]

    def step(self, frame, state):
        return self(frame, state)


class PitchEstimator(StreamingNetwork):
    HISTORY, NEWEST, LAGS, BINS, WINDOW, OCTAVE = 560, 304, 256, 64, 48, 96

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
        self.head = nn.Linear(192, 384)

    def file_tensors(self):
        t = [x for layer in (self.spectral_in, self.spectral_out, self.lag_in, self.lag_out, self.conv)
             for x in (layer.weight, layer.bias)]
        t += [self.conv_norm.weight, self.conv_norm.bias]
        t += [x for block in self.blocks for x in block.file_tensors()]
        return t + [self.out_norm.weight, self.out_norm.bias, self.head.weight, self.head.bias]

    def front_end(self, hist, previous):
        """hist [n, 560] -> spectral [n, 192], lag [n, 256], loudness [n], last spectrum [1, 64].

        previous [1, 64]: the spectrum of the frame before the first row.
        """
        spectrum = torch.fft.rfft(hist)
        x = spectrum[:, :self.BINS]
        advance = x * torch.cat([previous, x[:-1]]).conj()
        advance = advance / (advance.abs() + 1e-5)
        spectral = torch.cat([torch.log10(x.abs() + 1e-5), advance.real, advance.imag], dim=-1)
        # corr[s] = sum_m hist[s + m] * newest[m]: lag 256 - s, no wrap-around at this length.
        newest = hist[:, self.HISTORY - self.NEWEST:]
        corr = torch.fft.irfft(spectrum * torch.fft.rfft(newest, n=self.HISTORY).conj(), n=self.HISTORY)
        energy = F.pad(torch.cumsum(hist.double() ** 2, dim=-1), (1, 0))
        energy = (energy[:, self.NEWEST:] - energy[:, :-self.NEWEST])[:, :self.LAGS + 1].float()
        shifted = (energy[:, :self.LAGS] - 2 * corr[:, :self.LAGS]).flip(-1)   # lag 1 first
        lag = torch.sqrt(torch.clamp(energy[:, -1:] + shifted, min=0) * (2 / self.NEWEST))
        return spectral, lag, 0.5 * torch.log10(energy[:, -1] + 1e-5), x[-1:]

    def decode(self, scores):
        """Scores [n, 384] -> pitch bin [n], features [n, 3]: p0 and the octave ratios."""
        p = torch.softmax(scores, dim=-1)
        p0 = p[:, 0].clone()
        p[:, 0] = -100.0                          # bin 0 is reported apart, never chosen
        sums = p.double().unfold(-1, self.WINDOW, 1).sum(-1)
        j = sums.argmax(-1)
        best = sums.gather(1, j[:, None])[:, 0]
        below = sums.gather(1, (j - self.OCTAVE).clamp(min=0)[:, None])[:, 0] / best
        above = sums.gather(1, (j + self.OCTAVE).clamp(max=sums.shape[1] - 1)[:, None])[:, 0] / best
        lower = torch.where(j > self.OCTAVE, below, 0.0)
        upper = torch.where(j + self.OCTAVE < sums.shape[1], above, 0.0)
        window = p.unfold(-1, self.WINDOW, 1)[torch.arange(len(p)), j]
        pitch = j + window.argmax(-1)
        return pitch, torch.stack([p0, lower.float(), upper.float()], dim=-1)

    def network(self, spectral, lag, state):
        h = self.spectral_out(gelu(self.spectral_in(spectral))) + self.lag_out(gelu(self.lag_in(lag)))
        x = channels_last(self.conv(h.T[None], state), self.conv_norm)
        for block in self.blocks:
            x = block(x, state)
        return self.head(self.out_norm(x.transpose(1, 2)))[0]

    def _run(self, hist, state):
        previous = None if state is None else state.get("spectrum")
        if previous is None:
            previous = torch.zeros(1, self.BINS, dtype=torch.complex64)
        spectral, lag, loudness, last = self.front_end(hist, previous)
        pitch, features = self.decode(self.network(spectral, lag, state))
        if state is not None:
            state["spectrum"] = last
        return pitch, torch.cat([loudness[:, None], features], dim=-1)

    def forward(self, samples):
        """samples: n * 160 float32 -> pitch bins [n], pitch features [n, 4]."""
        return self._run(F.pad(samples, (self.HISTORY - 160, 0)).unfold(0, self.HISTORY, 160), None)

    def step(self, frame, state):
        past = state.get("history")
        hist = torch.cat([frame.new_zeros(self.HISTORY - 160) if past is None else past, frame])
        state["history"] = hist[160:]
        return self._run(hist[None], state)


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

    def file_tensors(self):
        return [t for convs in self.blocks for conv in convs for t in (conv.weight, conv.bias)]


class WaveformGenerator(StreamingNetwork):
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
        self.band_filter = nn.Parameter(torch.zeros(self.BANDS, self.TAPS))
        # Overlap-add of the windowed inverse transforms as a transposed
        # convolution: frame sample k lands at 4 t + k, weighted by the Hann
        # window, the overlap normalisation 2/3 and the band gain 4.
        window = torch.sin(math.pi * torch.arange(self.FFT) / self.FFT) ** 2
        self.register_buffer("overlap", (torch.diag(window) * (2 / 3 * 4))[:, None, :])
        self.register_buffer("merge", torch.zeros(self.BANDS, 1, self.TAPS))

    def file_tensors(self):
        t = [self.phone_proj.weight, self.phone_proj.bias, self.pitch_embedding.weight,
             self.pitch_feat_proj.weight, self.pitch_feat_proj.bias, self.pre_conv.weight, self.pre_conv.bias,
             self.norm1.weight, self.norm1.bias]
        t += [x for block in self.blocks for x in block.file_tensors()]
        t += [self.norm2.weight, self.norm2.bias, self.post_conv.weight, self.post_conv.bias]
        t += self.upsample1.file_tensors() + self.upsample2.file_tensors()
        t += self.stack1.file_tensors() + self.stack2.file_tensors()
        t += [self.logmag.weight, self.logmag.bias] + gru_tensors(self.gru, 1)
        return t + [self.band_filter]

    def load(self, path):
        super().load(path)
        # Zero-stuffing by 4 then the 63-tap filter (tap 62 on the newest
        # position) is a stride-4 transposed convolution with the taps reversed.
        self.merge = self.band_filter.flip(-1)[:, None, :].contiguous()
        return self

    def forward(self, phone, pitch, pitch_features, speaker, state=None):
        """phone [n, 256], pitch [n] int, pitch_features [n, 4], speaker [1 or n, 256] -> n * 240 samples."""
        x = (self.phone_proj(phone) + self.pitch_embedding(pitch.long()) + self.pitch_feat_proj(pitch_features)
             + speaker)
        x = self.pre_conv(F.silu(x).T[None], state)
        x = channels_last(x, self.norm1)
        for block in self.blocks:
            x = block(x, state)
        x = F.silu(self.post_conv(channels_last(x, self.norm2), state))
        x = self.stack1(self.upsample1(x, state), state)
        x = F.silu(self.stack2(self.upsample2(F.silu(x), state), state))          # [1, 64, 15 n]
        magnitude = torch.exp(self.logmag(x, state))[0].T                          # [15 n, 36]
        h = run_gru(self.gru, x.transpose(1, 2), state)[0]                         # [15 n, 128]
        c = torch.complex(h[:, 0:72:2], h[:, 1:72:2])
        spectra = c * (magnitude / (c.abs() + 1e-6))
        frames = torch.fft.irfft(spectra.view(-1, self.BANDS, self.BINS), n=self.FFT)   # [15 n, 4, 16]
        bands = transposed_conv(frames.permute(1, 2, 0), self.overlap, self.HOP, state, "overlap")
        out = transposed_conv(bands.view(1, self.BANDS, -1), self.merge, self.BANDS, state, "merge")
        return out.view(-1)

    def step(self, phone, pitch, pitch_features, speaker, state):
        return self(phone, pitch, pitch_features, speaker, state)
