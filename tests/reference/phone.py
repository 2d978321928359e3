"""Float64 whole-stream model of the phone extractor.

Every layer runs over the entire stream at once: the front end is a chain
of strided convolutions over the zero-padded sample stream, the frame-rate
convolutions are causal convolutions over the zero-padded frame sequence,
and only the recurrent layers loop over time. Zero padding at the start
stands for the zeroed history of a fresh stream.
"""
import numpy as np

from .layers import causal_conv, dense, gelu, gru, normalise, residual_block

HOP = 160
CHANNELS = 256
RESIDUAL_BLOCKS = 8
RECURRENT_LAYERS = 3

# Faults an engine could plausibly have; used to show the comparison
# tolerance is discriminating.
FAULTS = (
    "swap_reset_update",        # reset and update gate blocks exchanged
    "reset_after_bias",         # reset scales W_h.h only, not the state bias
    "reverse_causal_taps",      # kernel-7 taps meet frames newest-first
    "reverse_depthwise_taps",   # kernel-17 taps meet frames newest-first
    "drop_front_carry",         # convs 2-5 forget the previous frame's position
)


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
        v = gru(dense(v, p[f"gru.weight_ih_l{l}"], p[f"gru.bias_ih_l{l}"]), p[f"gru.weight_hh_l{l}"],
                p[f"gru.bias_hh_l{l}"], fault == "swap_reset_update", fault == "reset_after_bias")
    u = u + v
    w = p["causal_conv.weight"]
    if fault == "reverse_causal_taps":
        w = w[:, :, ::-1]
    x = normalise(causal_conv(u, w, p["causal_conv.bias"]), p["causal_norm.weight"], p["causal_norm.bias"])
    for k in range(RESIDUAL_BLOCKS):
        x = residual_block(p, f"blocks.{k}.", x, fault == "reverse_depthwise_taps")
    x = gelu(normalise(x, p["out_norm.weight"], p["out_norm.bias"]))
    return dense(x, p["output_dense.weight"], p["output_dense.bias"])
