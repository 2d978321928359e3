"""Layers the three references share, in float64 over whole sequences.
Zero padding at the start stands for the zeroed history of a fresh stream."""
import numpy as np

# Single-precision constants of the activations and norms, widened.
NORM_EPS = float(np.float32(1e-5))
GELU_C = float(np.float32(0.7978846))
GELU_A = float(np.float32(0.044715))


def gelu(x):
    return 0.5 * x * (1.0 + np.tanh(GELU_C * (x + GELU_A * x ** 3)))


def sigmoid(x):
    return 0.5 * (1.0 + np.tanh(0.5 * x))


def silu(x):
    return x * sigmoid(x)


def normalise(x, scale=None, shift=None):
    """Per-row normalisation over channels; epsilon joins E[x^2] first."""
    mean = x.mean(axis=-1, keepdims=True)
    var = (x * x).mean(axis=-1, keepdims=True) + NORM_EPS - mean * mean
    r = 1.0 / np.sqrt(var)
    y = x * r - mean * r
    return y if scale is None else scale * y + shift


def dense(x, w, b):
    return x @ w.T + b


def causal_conv(x, w, b, dilation=1):
    """Over a (T, in) sequence with w[out, in, K]: tap k meets step
    t - (K - 1 - k) * dilation, so the last tap is the newest."""
    k = w.shape[2]
    xp = np.concatenate([np.zeros(((k - 1) * dilation, x.shape[1])), x])
    return b + sum(xp[t * dilation:t * dilation + len(x)] @ w[:, :, t].T for t in range(k))


def residual_block(p, prefix, x, reverse_taps=False):
    """Depthwise causal convolution, normalisation, pointwise, GELU,
    pointwise, plus the input. reverse_taps plants a fault: the taps meet
    the frames newest-first."""
    d = p[prefix + "depthwise.weight"][:, 0]          # [channel, tap]
    if reverse_taps:
        d = d[:, ::-1]
    taps = d.shape[1]
    xp = np.concatenate([np.zeros((taps - 1, x.shape[1])), x])
    m = p[prefix + "depthwise.bias"] + sum(d[:, t] * xp[t:t + len(x)] for t in range(taps))
    h = gelu(dense(normalise(m), p[prefix + "pointwise1.weight"], p[prefix + "pointwise1.bias"]))
    return dense(h, p[prefix + "pointwise2.weight"], p[prefix + "pointwise2.bias"]) + x


def gru(gi, w_hh, b_hh, swap_gates=False, reset_after_bias=False):
    """Gated recurrent unit over input projections gi[T, 3H] (reset, update,
    candidate rows); returns the states [T, H]. The flags plant faults: the
    gate blocks exchanged, or the reset gate scaling W_h.h but not its bias."""
    g = w_hh.shape[1]
    h, states = np.zeros(g), np.empty((len(gi), g))
    for t, row in enumerate(gi):
        gh = w_hh @ h + b_hh
        r, z = sigmoid(row[:g] + gh[:g]), sigmoid(row[g:2 * g] + gh[g:2 * g])
        if swap_gates:
            r, z = z, r
        bias_outside = (1.0 - r) * b_hh[2 * g:] if reset_after_bias else 0.0
        n = np.tanh(row[2 * g:] + r * gh[2 * g:] + bias_outside)
        h = (1.0 - z) * n + z * h
        states[t] = h
    return states
