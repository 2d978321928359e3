"""Float64 whole-stream model of the phone extractor.

Every layer runs over the entire stream at once: the front end is a chain
of strided convolutions over the zero-padded sample stream, the frame-rate
convolutions are causal convolutions over the zero-padded frame sequence,
and only the recurrent layers loop over time. Zero padding at the start
stands for the zeroed history of a fresh stream.
"""
import numpy as np

HOP = 160
CHANNELS = 256
RESIDUAL_BLOCKS = 8
RECURRENT_LAYERS = 3
# Single-precision constants of the activations and norms, widened.
NORM_EPS = float(np.float32(1e-5))
GELU_C = float(np.float32(0.7978846))
GELU_A = float(np.float32(0.044715))

# Faults an engine could plausibly have; used to show the comparison
# tolerance is discriminating.
FAULTS = (
    "swap_reset_update",        # reset and update gate blocks exchanged
    "reset_after_bias",         # reset scales W_h.h only, not the state bias
    "reverse_causal_taps",      # kernel-7 taps meet frames newest-first
    "reverse_depthwise_taps",   # kernel-17 taps meet frames newest-first
    "drop_front_carry",         # convs 2-5 forget the previous frame's position
)


def gelu(x):
    return 0.5 * x * (1.0 + np.tanh(GELU_C * (x + GELU_A * x ** 3)))


def sigmoid(x):
    return 1.0 / (1.0 + np.exp(-x))


# The recurrent gates' tanh is kept apart from the GELU's: the engine
# approximates only the gate activations.
gate_tanh = np.tanh


def normalise(x, scale=None, shift=None):
    """Per-row normalisation over channels; epsilon joins E[x^2] first."""
    mean = x.mean(axis=-1, keepdims=True)
    var = (x * x).mean(axis=-1, keepdims=True) + NORM_EPS - mean * mean
    r = 1.0 / np.sqrt(var)
    y = x * r - mean * r
    return y if scale is None else scale * y + shift


def dense(x, w, b):
    return x @ w.T + b


def strided_conv(x, w, stride, pad):
    """Bias-free convolution over positions x[P, in] with w[out, in, k].

    Output j reads padded positions stride*j + t, i.e. original positions
    stride*j - pad + t; padding is zeros at the start only.
    """
    k = w.shape[2]
    xp = np.concatenate([np.zeros((pad, x.shape[1])), x])
    n_out = (len(xp) - k) // stride + 1
    return sum(xp[t:t + stride * (n_out - 1) + 1:stride] @ w[:, :, t].T for t in range(k))


def front_end(params, signal, fault=None):
    """Samples [n*160] -> one 256-vector per frame, before normalisation."""
    s = np.asarray(signal, dtype=np.float64)
    w1 = params["front.0.weight"]                     # one input channel
    x = gelu(strided_conv(s[:, None], w1, stride=5, pad=5))
    for k in range(2, 6):
        w = params[f"front.{k - 1}.weight"]
        y = strided_conv(x, w, stride=2, pad=1)
        if fault == "drop_front_carry":
            # The first position of every later frame loses its tap 0 input.
            per_frame = len(y) * HOP // len(s)
            starts = np.arange(per_frame, len(y), per_frame)
            y[starts] -= x[2 * starts - 1] @ w[:, :, 0].T
        x = gelu(y)
    return gelu(strided_conv(x, params["front.5.weight"], stride=2, pad=0))


def gru_layer(v, wi, bi, wh, bh, fault=None):
    """One gated recurrent layer over the sequence v[T, 256]; returns h[T, 256]."""
    gi = dense(v, wi, bi)
    h = np.zeros(CHANNELS)
    out = np.empty((len(v), CHANNELS))
    c = CHANNELS
    for f in range(len(v)):
        gh = wh @ h + bh
        r = sigmoid(gi[f, :c] + gh[:c])
        z = sigmoid(gi[f, c:2 * c] + gh[c:2 * c])
        if fault == "swap_reset_update":
            r, z = z, r
        if fault == "reset_after_bias":
            n = gate_tanh(gi[f, 2 * c:] + r * (gh[2 * c:] - bh[2 * c:]) + bh[2 * c:])
        else:
            n = gate_tanh(gi[f, 2 * c:] + r * gh[2 * c:])
        h = (1.0 - z) * n + z * h
        out[f] = h
    return out


def causal_conv(x, w, b):
    """y[f] = b + sum_t w[:, :, t] x[f - (k-1) + t]: the last tap is the current frame."""
    k = w.shape[2]
    xp = np.concatenate([np.zeros((k - 1, x.shape[1])), x])
    return b + sum(xp[t:t + len(x)] @ w[:, :, t].T for t in range(k))


def residual_block(params, k, x, fault=None):
    d = params[f"blocks.{k}.depthwise.weight"][:, 0]  # [256 ch, 17 taps]
    if fault == "reverse_depthwise_taps":
        d = d[:, ::-1]
    taps = d.shape[1]
    xp = np.concatenate([np.zeros((taps - 1, CHANNELS)), x])
    m = params[f"blocks.{k}.depthwise.bias"] + sum(d[:, t] * xp[t:t + len(x)] for t in range(taps))
    h = gelu(dense(normalise(m), params[f"blocks.{k}.pointwise1.weight"], params[f"blocks.{k}.pointwise1.bias"]))
    return dense(h, params[f"blocks.{k}.pointwise2.weight"], params[f"blocks.{k}.pointwise2.bias"]) + x


def extract_phone(params, signal, fault=None):
    """Phone features [n_frames, 256] for a whole stream of 160-sample frames.

    `fault` (one of FAULTS) plants a deliberate mistake; None is the model.
    """
    if fault is not None and fault not in FAULTS:
        raise ValueError(f"unknown fault {fault!r}")
    p = {n: np.asarray(v, dtype=np.float64) for n, v in params.items()}
    s = np.asarray(signal).reshape(-1)
    assert len(s) % HOP == 0
    u = dense(normalise(front_end(p, s, fault)), p["input_dense.weight"], p["input_dense.bias"])
    v = u
    for l in range(RECURRENT_LAYERS):
        v = gru_layer(v, p[f"gru.weight_ih_l{l}"], p[f"gru.bias_ih_l{l}"],
                      p[f"gru.weight_hh_l{l}"], p[f"gru.bias_hh_l{l}"], fault)
    u = u + v
    w = p["causal_conv.weight"]
    if fault == "reverse_causal_taps":
        w = w[:, :, ::-1]
    x = normalise(causal_conv(u, w, p["causal_conv.bias"]), p["causal_norm.weight"], p["causal_norm.bias"])
    for k in range(RESIDUAL_BLOCKS):
        x = residual_block(p, k, x, fault)
    x = gelu(normalise(x, p["out_norm.weight"], p["out_norm.bias"]))
    return dense(x, p["output_dense.weight"], p["output_dense.bias"])
