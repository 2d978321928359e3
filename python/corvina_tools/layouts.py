"""The parameter files' layouts: each model's tensors in file order, with the
name the PyTorch networks give them, their shape as the file holds them, and
the scale of random values a test model draws for them.

This one list per model is what the exporter and loader (corvina_tools.training),
the random test-model writer and the tests follow. Every file is little-endian
half floats, the tensors back to back, each in row-major order.
"""
from typing import NamedTuple, Tuple

import numpy as np


class Tensor(NamedTuple):
    name: str
    shape: Tuple[int, ...]          # as stored in the file
    std: float                      # random test values: normal(mean, std)
    mean: float = 0.0
    transposed: bool = False        # PyTorch holds it [in][out][k]; the file [out][in][k]

    @property
    def size(self):
        return int(np.prod(self.shape))


def weight(name, shape, gain=1.0, fan_in=None, **kw):
    fan_in = fan_in or int(np.prod(shape[1:]))
    return Tensor(f"{name}.weight", shape, gain / np.sqrt(fan_in), **kw)


def bias(name, n, std=0.05, mean=0.0):
    return Tensor(f"{name}.bias", (n,), std, mean)


def norm(name, n):
    return [Tensor(f"{name}.weight", (n,), 0.1, 1.0), bias(name, n)]      # scale, shift


def dense(name, n_out, n_in, gain=1.0):
    return [weight(name, (n_out, n_in), gain), bias(name, n_out)]


def conv(name, n_out, n_in, taps, gain=1.0):
    return [weight(name, (n_out, n_in, taps), gain), bias(name, n_out)]


def gru(name, layers, hidden, n_in, recurrent_gain=0.9):
    t = []
    for layer in range(layers):
        t += [Tensor(f"{name}.weight_ih_l{layer}", (3 * hidden, n_in if layer == 0 else hidden),
                     1 / np.sqrt(n_in if layer == 0 else hidden)), Tensor(f"{name}.bias_ih_l{layer}", (3 * hidden,), 0.05),
              Tensor(f"{name}.weight_hh_l{layer}", (3 * hidden, hidden), recurrent_gain / np.sqrt(hidden)),
              Tensor(f"{name}.bias_hh_l{layer}", (3 * hidden,), 0.05)]
    return t


def residual_block(name, channels, taps, hidden, expand_gain, project_gain):
    return ([Tensor(f"{name}.depthwise.weight", (channels, 1, taps), 1 / np.sqrt(taps)),
             bias(f"{name}.depthwise", channels)]
            + dense(f"{name}.pointwise1", hidden, channels, expand_gain)
            + dense(f"{name}.pointwise2", channels, hidden, project_gain))


def _phone():
    t = [weight("front.0", (32, 1, 10), 6.0)]                         # samples are of order 0.1
    t += [weight(f"front.{k}", (o, i, 3), 2.0) for k, (i, o) in enumerate([(32, 64), (64, 128), (128, 256),
                                                                           (256, 256)], 1)]
    t += [weight("front.5", (256, 256, 2), 2.0)] + dense("input_dense", 256, 256)
    t += gru("gru", 3, 256, 256)                                      # a contractive recurrence
    t += conv("causal_conv", 256, 256, 7) + norm("causal_norm", 256)
    for i in range(8):
        t += residual_block(f"blocks.{i}", 256, 17, 768, 1.0, 0.7)
    return t + norm("out_norm", 256) + dense("output_dense", 256, 256)


def _pitch():
    t = (dense("spectral_in", 192, 192) + dense("spectral_out", 192, 192) + dense("lag_in", 192, 256, 4.0)
         + dense("lag_out", 192, 192))
    t += conv("conv", 192, 192, 3) + norm("conv_norm", 192)
    for i in range(6):
        t += residual_block(f"blocks.{i}", 192, 33, 576, 1.5, 0.6)
    return t + norm("out_norm", 192) + dense("head", 384, 192, 3.0)     # peaked, not one-hot, bin scores


def _waveform():
    t = dense("phone_proj", 256, 256) + [Tensor("pitch_embedding.weight", (384, 256), 0.5)]
    t += dense("pitch_feat_proj", 256, 4) + conv("pre_conv", 256, 256, 7) + norm("norm1", 256)
    for i in range(4):
        t += residual_block(f"blocks.{i}", 256, 17, 768, 1.0, 0.5)
    t += norm("norm2", 256) + conv("post_conv", 256, 256, 7)
    # Each upsampled sub-step meets two taps of each input channel.
    t += [weight("upsample1", (128, 256, 10), fan_in=256 * 2, transposed=True), bias("upsample1", 128)]
    t += [weight("upsample2", (64, 128, 6), fan_in=128 * 2, transposed=True), bias("upsample2", 64)]
    for stack, channels in (("stack1", 128), ("stack2", 64)):
        t += [x for b, taps in enumerate((3, 7, 11)) for c in range(6)
              for x in conv(f"{stack}.blocks.{b}.{c}", channels, channels, taps, 0.8)]
    t += [weight("logmag", (36, 64, 7)), bias("logmag", 36, 0.3, -1.0)]    # log-magnitudes near exp(-1)
    t += [Tensor("gru.weight_ih_l0", (384, 64), 3.0 / 8), Tensor("gru.bias_ih_l0", (384,), 0.05),
          Tensor("gru.weight_hh_l0", (384, 128), 0.6 / np.sqrt(128)), Tensor("gru.bias_hh_l0", (384,), 0.05)]
    return t + [Tensor("band_filter", (4, 63), 0.25)]


PHONE_LAYOUT, PITCH_LAYOUT, WAVEFORM_LAYOUT = _phone(), _pitch(), _waveform()


def file_bytes(layout):
    """The exact size of a parameter file with this layout."""
    return 2 * sum(t.size for t in layout)
