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
GATES = 3 * CHANNELS
RESIDUAL_BLOCKS = 8
RECURRENT_LAYERS = 3
CAUSAL_TAPS = 7
DEPTHWISE_TAPS = 17
# Front-end convolutions 2..5: (input, output) channels, kernel 3, stride 2.
STRIDED = [(32, 64), (64, 128), (128, 256), (256, 256)]
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


def _tensor_list():
    t = [("conv1.weight", (32, 10))]
    for k, (cin, cout) in enumerate(STRIDED, start=2):
        t.append((f"conv{k}.weight", (cout, cin, 3)))
    t.append(("conv6.weight", (256, 256, 2)))
    t += [("input_dense.weight", (256, 256)), ("input_dense.bias", (256,))]
    for l in range(RECURRENT_LAYERS):
        for side in ("input", "state"):
            t += [(f"gru{l}.{side}.weight", (GATES, 256)), (f"gru{l}.{side}.bias", (GATES,))]
    t += [("causal_conv.weight", (256, 256, CAUSAL_TAPS)), ("causal_conv.bias", (256,)),
          ("causal_norm.scale", (256,)), ("causal_norm.shift", (256,))]
    for k in range(RESIDUAL_BLOCKS):
        t += [(f"res{k}.depthwise.weight", (256, DEPTHWISE_TAPS)), (f"res{k}.depthwise.bias", (256,)),
              (f"res{k}.pointwise1.weight", (GATES, 256)), (f"res{k}.pointwise1.bias", (GATES,)),
              (f"res{k}.pointwise2.weight", (256, GATES)), (f"res{k}.pointwise2.bias", (256,))]
    t += [("out_norm.scale", (256,)), ("out_norm.shift", (256,)),
          ("output_dense.weight", (256, 256)), ("output_dense.bias", (256,))]
    return t


TENSORS = _tensor_list()
FILE_BYTES = 2 * sum(int(np.prod(shape)) for _, shape in TENSORS)
assert FILE_BYTES == 10847360, FILE_BYTES


def _gain(layer):
    if layer == "conv1":
        return 6.0          # input samples are of order 0.1
    if layer.startswith("conv"):
        return 2.0          # GELU roughly halves the spread
    if layer.endswith(".state"):
        return 0.9          # keeps the recurrence contractive
    if layer.endswith("pointwise2"):
        return 0.7          # residual stream grows slowly over eight blocks
    return 1.0


def random_parameters(seed):
    """Random float16 weights that keep activations of order one.

    Matrices are scaled by gain/sqrt(fan_in); the gains were tuned so the
    front end, gates and residual stack neither saturate nor die out.
    """
    rng = np.random.default_rng(seed)
    p = {}
    for name, shape in TENSORS:
        layer, _, kind = name.rpartition(".")
        if kind == "bias":
            v = 0.1 * rng.standard_normal(shape)
        elif kind == "scale":
            v = 1.0 + 0.1 * rng.standard_normal(shape)
        elif kind == "shift":
            v = 0.1 * rng.standard_normal(shape)
        else:
            fan_in = int(np.prod(shape[1:]))
            g = _gain(layer)
            v = g / np.sqrt(fan_in) * rng.standard_normal(shape)
        p[name] = v.astype(np.float16)
    return p


def write_parameters(params, path):
    """Write the flat little-endian float16 file in tensor order."""
    blob = b"".join(np.ascontiguousarray(params[n], dtype="<f2").reshape(s).tobytes()
                    for n, s in TENSORS)
    assert len(blob) == FILE_BYTES
    with open(path, "wb") as f:
        f.write(blob)


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
    w1 = params["conv1.weight"][:, None, :]           # one input channel
    x = gelu(strided_conv(s[:, None], w1, stride=5, pad=5))
    for k in range(2, 6):
        w = params[f"conv{k}.weight"]
        y = strided_conv(x, w, stride=2, pad=1)
        if fault == "drop_front_carry":
            # The first position of every later frame loses its tap 0 input.
            per_frame = len(y) * HOP // len(s)
            starts = np.arange(per_frame, len(y), per_frame)
            y[starts] -= x[2 * starts - 1] @ w[:, :, 0].T
        x = gelu(y)
    return gelu(strided_conv(x, params["conv6.weight"], stride=2, pad=0))


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
    d = params[f"res{k}.depthwise.weight"]            # [256 ch, 17 taps]
    if fault == "reverse_depthwise_taps":
        d = d[:, ::-1]
    taps = d.shape[1]
    xp = np.concatenate([np.zeros((taps - 1, CHANNELS)), x])
    m = params[f"res{k}.depthwise.bias"] + sum(d[:, t] * xp[t:t + len(x)] for t in range(taps))
    h = gelu(dense(normalise(m), params[f"res{k}.pointwise1.weight"], params[f"res{k}.pointwise1.bias"]))
    return dense(h, params[f"res{k}.pointwise2.weight"], params[f"res{k}.pointwise2.bias"]) + x


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
        v = gru_layer(v, p[f"gru{l}.input.weight"], p[f"gru{l}.input.bias"],
                      p[f"gru{l}.state.weight"], p[f"gru{l}.state.bias"], fault)
    u = u + v
    w = p["causal_conv.weight"]
    if fault == "reverse_causal_taps":
        w = w[:, :, ::-1]
    x = normalise(causal_conv(u, w, p["causal_conv.bias"]), p["causal_norm.scale"], p["causal_norm.shift"])
    for k in range(RESIDUAL_BLOCKS):
        x = residual_block(p, k, x, fault)
    x = gelu(normalise(x, p["out_norm.scale"], p["out_norm.shift"]))
    return dense(x, p["output_dense.weight"], p["output_dense.bias"])
