"""Layers shared by the three networks, each usable two ways: over a whole
batch of sequences (zero history before the first step, as a fresh engine
context) and frame by frame with the history carried in a state dict."""
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
            y = torch.cat([y[..., :carry.shape[-1]] + carry, y[..., carry.shape[-1]:]], dim=-1)
        state[key] = y[..., n:]
    return y[..., :n]


class CausalConv1d(nn.Conv1d):
    """Conv1d that sees only the past. Whole sequences are left-padded with
    zeros; in streaming use the inputs a frame still needs from earlier
    frames are kept in the state dict under the layer itself.

    With streaming_matmul set, streaming calls gather the taps and run one
    matrix product (depthwise: a weighted sum) instead: on one thread
    PyTorch's convolution kernels are several times slower than that on a
    few steps.
    """
    streaming_matmul = False

    def __init__(self, cin, cout, kernel, stride=1, dilation=1, groups=1, bias=True):
        super().__init__(cin, cout, kernel, stride=stride, dilation=dilation, groups=groups, bias=bias)
        # Frame lengths are multiples of the stride, so this much left context suffices.
        self.context = (kernel - 1) * dilation + 1 - stride

    def forward(self, x, state=None):
        past = None if state is None else state.get(self)
        if past is None:
            x = F.pad(x, (self.context, 0))
        else:
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
        return (taps * self.weight).sum(-1) + self.bias[:, None]


class CausalConvTranspose1d(nn.ConvTranspose1d):
    """Upsampling layer; each input step's tail spills into the next frame."""

    def forward(self, x, state=None):
        return transposed_conv(x, self.weight, self.stride[0], state, self) + self.bias[:, None]


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


def run_gru(gru, x, state):
    """nn.GRU over x [B, T, C], its hidden state carried in streaming use."""
    y, h = gru(x, None if state is None else state.get(gru))
    if state is not None:
        state[gru] = h
    return y


class Network(nn.Module):
    """What the three networks share: the parameters in the order of the
    model's file layout (LAYOUT, from corvina_tools.layouts), and the
    streaming state."""
    LAYOUT = ()

    def file_tensors(self):
        """[(name, tensor, transposed)] in file order. A transposed tensor is
        a transposed-convolution weight: [in][out][k] here, [out][in][k] in
        the file. Everything else is stored in PyTorch's own order."""
        entries = []
        for t in self.LAYOUT:
            tensor = self.get_parameter(t.name)
            shape = (t.shape[1], t.shape[0], *t.shape[2:]) if t.transposed else t.shape
            if tuple(tensor.shape) != tuple(shape):
                raise AssertionError(f"{type(self).__name__}.{t.name}: shape {tuple(tensor.shape)}, layout {shape}")
            entries.append((t.name, tensor, t.transposed))
        return entries

    def parameter_count(self):
        return sum(t.numel() for _, t, *_ in self.file_tensors())

    @staticmethod
    def new_state():
        return {}
