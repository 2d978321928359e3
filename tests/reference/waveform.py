"""Float64 whole-stream model of the waveform generator.

Every stage runs over the entire stream at once: causal convolutions over
the zero-padded frame or sub-step sequence, the two upsamplers as
transposed-convolution scatter-adds (what the engine's carry rings emulate),
the overlap-add and the band merge over the whole band signal. Only the
phase recurrent unit is a loop. Zero history before the stream start is
zero padding at the start of each sequence.

Inputs are per-frame rows: phone (n, 256), qpitch (n,), pfeat (n, 4),
speaker (n, 256). Output: n * 240 samples at 24 kHz.
"""
import numpy as np

from .layers import causal_conv, gru, normalise, residual_block, silu

HOP = 240
STAGE1_CHANNELS, STAGE1_STEPS = 128, 5
STAGE2_CHANNELS, STAGE2_STEPS = 64, 15
BANDS, BINS, FFT_LEN, FFT_HOP, MERGE_TAPS = 4, 9, 16, 4, 63
STACK_KERNELS = (3, 7, 11)
# Dilation of the six convolutions of one residual block, in file order.
STACK_DILATIONS = (1, 1, 3, 1, 5, 1)

WINDOW = np.sin(np.pi * np.arange(FFT_LEN) / FFT_LEN) ** 2
OVERLAP_NORM = 2.0 / 3.0
BAND_GAIN = 4.0
PHASE_EPS = 1e-6

FAULTS = (
    "gru_gates_swapped",      # reset and update gate rows exchanged
    "merge_taps_reversed",    # band filter applied oldest-tap-first
    "upsample1_carry_late",   # taps 5..9 land one sub-step later
    "overlap_emit_early",     # hop emitted before the current frame is added
)


# ---------------------------------------------------------------- frame network

def frame_network(p, phone, qpitch, pfeat, speaker):
    """Frame-rate network: (n, 256) activated output of the post-convolution."""
    x = (phone @ p["phone_proj.weight"].T + p["phone_proj.bias"]
         + p["pitch_embedding.weight"][np.asarray(qpitch)]
         + pfeat @ p["pitch_feat_proj.weight"].T + p["pitch_feat_proj.bias"]
         + speaker)
    x = normalise(causal_conv(silu(x), p["pre_conv.weight"], p["pre_conv.bias"]), p["norm1.weight"], p["norm1.bias"])
    for j in range(4):
        x = residual_block(p, f"blocks.{j}.", x)
    x = normalise(x, p["norm2.weight"], p["norm2.bias"])
    return silu(causal_conv(x, p["post_conv.weight"], p["post_conv.bias"]))


# ---------------------------------------------------------------- upsampling

def transposed_conv(x, weight, bias, stride, carry_shift=0):
    """Transposed convolution, output truncated to len(x) * stride steps.

    Input step i adds weight[:, :, t] @ x[i] to output step stride * i + t;
    contributions past the end wait for frames not yet given and are dropped.
    weight is [out][in][k].
    """
    n_out = len(x) * stride
    y = np.zeros((n_out + weight.shape[2] + carry_shift, weight.shape[0]))
    taps = np.ascontiguousarray(weight.transpose(2, 1, 0))
    for t in range(weight.shape[2]):
        # carry_shift models a misplaced carry (planted fault only).
        at = t + (carry_shift if t >= stride else 0)
        y[at: at + n_out: stride] += x @ taps[t]
    return y[:n_out] + bias


# ---------------------------------------------------------------- residual stacks

def residual_stack(x, p, stage):
    """Mean of the kernel-3, -7 and -11 residual blocks over a (T, N) sequence."""
    results = {}
    for b, k in enumerate(STACK_KERNELS):
        def conv(j, v):
            name = f"stack{stage}.blocks.{b}.{j}"
            return causal_conv(v, p[name + ".weight"], p[name + ".bias"], STACK_DILATIONS[j])

        r = x
        for s in range(3):
            a = silu(conv(2 * s, silu(r)))
            r = r + conv(2 * s + 1, a)
        results[k] = r
    return ((results[11] + results[3]) + results[7]) * (1.0 / 3.0)


# ---------------------------------------------------------------- synthesis

def spectra(p, x, fault=None):
    """Complex spectra (T, 36): magnitudes from the log-magnitude convolution,
    directions from pairs of the recurrent state."""
    magnitude = np.exp(causal_conv(x, p["logmag.weight"], p["logmag.bias"]))
    h = gru(x @ p["gru.weight_ih_l0"].T + p["gru.bias_ih_l0"], p["gru.weight_hh_l0"], p["gru.bias_hh_l0"],
            fault == "gru_gates_swapped")
    c = h[:, 0:72:2] + 1j * h[:, 1:72:2]
    return c * magnitude / (np.abs(c) + PHASE_EPS)


def band_signals(spectra, fault=None):
    """Overlap-add of the windowed 16-point inverse transforms: (4, 4 T).

    Frame i covers band positions 4 i .. 4 i + 15; band sample n is complete
    once frame n // 4 has been added, so it holds frames n//4 - 3 .. n//4.
    """
    n_sub = spectra.shape[0]
    bins = spectra.reshape(n_sub, BANDS, BINS).copy()
    bins[:, :, 0] = bins[:, :, 0].real        # imaginary parts of bins 0 and 8
    bins[:, :, BINS - 1] = bins[:, :, BINS - 1].real   # play no part
    frames = np.fft.irfft(bins, n=FFT_LEN, axis=2) * WINDOW   # 1/16 scale included
    buffer = np.zeros((BANDS, FFT_HOP * n_sub + FFT_LEN))
    for j in range(FFT_LEN // FFT_HOP):
        # Part j of frame i lands at positions 4 (i + j) .. 4 (i + j) + 3.
        part = frames[:, :, FFT_HOP * j: FFT_HOP * (j + 1)].transpose(1, 0, 2).reshape(BANDS, -1)
        buffer[:, FFT_HOP * j: FFT_HOP * j + part.shape[1]] += part
    if fault == "overlap_emit_early":
        buffer = np.concatenate([np.zeros((BANDS, FFT_HOP)), buffer], axis=1)
    return buffer[:, : FFT_HOP * n_sub] * OVERLAP_NORM


def band_merge(bands, band_filter, fault=None):
    """Sum over bands of the 63-tap filter on the 4x zero-stuffed band signal;
    band_filter[b][62] weighs the newest position."""
    n = bands.shape[1] * BANDS
    stuffed = np.zeros((BANDS, MERGE_TAPS - 1 + n))
    stuffed[:, MERGE_TAPS - 1::BANDS] = bands
    taps = band_filter[:, ::-1] if fault == "merge_taps_reversed" else band_filter
    out = np.zeros(n)
    for k in range(MERGE_TAPS):
        out += taps[:, k] @ stuffed[:, k: k + n]
    return out


# ---------------------------------------------------------------- whole model

def generate(params, phone, qpitch, pfeat, speaker, fault=None):
    """Output samples (n_frames * 240,) float64 for a whole stream.

    fault, if given, is one of FAULTS: a deliberate error of a kind an engine
    could make, used to show that the comparison tolerance discriminates.
    """
    if fault is not None and fault not in FAULTS:
        raise ValueError(f"unknown fault {fault!r}")
    p = {name: np.asarray(value, dtype=np.float64) for name, value in params.items()}
    x = transposed_conv(frame_network(p, phone, qpitch, pfeat, speaker), p["upsample1.weight"], p["upsample1.bias"],
                        STAGE1_STEPS, 1 if fault == "upsample1_carry_late" else 0)
    x = transposed_conv(silu(residual_stack(x, p, 1)), p["upsample2.weight"], p["upsample2.bias"],
                        STAGE2_STEPS // STAGE1_STEPS)
    bands = band_signals(spectra(p, silu(residual_stack(x, p, 2)), fault), fault) * BAND_GAIN
    return band_merge(bands, p["band_filter"], fault)
