"""Pitch estimator: checks of the float64 reference and of the engine against it."""
import numpy as np
import pytest

from reference import pitch
from signals import frames, speech_like

SEEDS = (1, 2)
N_FRAMES = 320
F32 = np.float32

# Score tolerance. A single-precision stand-in for the engine (the front end
# the engine's way with float32 FFTs and a running energy, then the network
# in float32) stays within 1.2e-5 of the reference scores for seeds 1..3.
# The engine accumulates its products sequentially with FMA over up to 576
# inputs where the stand-in uses blocked sums; allowing ~16x for that gives
# 2e-4. The decoder uses the library exp and log, so nothing coarser enters.
SCORE_TOL = 2e-4
# A softmax moves each p[i] by at most p[i] * 2 * SCORE_TOL; expf of a
# single-precision s[i] - L (|s[i] - L| < 32) adds up to 2e-6 relative.
PROB_REL = 2 * SCORE_TOL + 4e-6
# Window sums: each W moves by at most W * PROB_REL, so a ratio by twice that.
# The engine forms p[48] - (-100) in single precision, an error of up to
# 3.8e-6 shared by every later window; it shifts a ratio by 2 * 3.8e-6 / Wmax.
RATIO_REL = 2 * PROB_REL
RATIO_SHARED = 1e-5
# Loudness: single-precision squares summed in double, rounded to a float of
# magnitude <= 2.5 (half an ulp is 1.2e-7).
LOUDNESS_TOL = 1e-6


def single_precision_front_end(signal):
    """The front end the engine's way: float32 FFTs, correlation by FFT, running energy."""
    hist = pitch.histories(signal).astype(F32)          # exact: the samples are float32
    n = len(hist)
    spectrum = np.fft.rfft(hist, axis=1)[:, :64]
    log_mag = np.log10((np.abs(spectrum) + F32(1e-5)).astype(np.float64)).astype(F32)
    previous = np.vstack([np.zeros((1, 64), np.complex64), spectrum[:-1]])
    c = spectrum * np.conj(previous)
    g = F32(1) / (np.hypot(c.real, c.imag) + F32(1e-5))
    spectral = np.hstack([log_mag, c.real * g, c.imag * g])

    a = np.hstack([hist[:, 256:], np.zeros((n, 256), F32)])
    r = np.fft.irfft(np.fft.rfft(a, axis=1) * np.fft.rfft(hist[:, ::-1], axis=1), 560, axis=1)
    sq = hist * hist
    energy = sq[:, 256:].astype(np.float64).sum(axis=1)
    e0 = energy.astype(F32)
    ells = np.arange(1, 257)
    steps = (sq[:, 256 - ells] - sq[:, 560 - ells]).astype(np.float64)
    running = (energy[:, None] + np.cumsum(steps, axis=1)).astype(F32)
    d = running + (e0[:, None] - F32(2) * r[:, 303 + ells])
    lag = np.sqrt(np.maximum(d, F32(0)) * F32(1 / 152))
    loudness = (0.5 * np.log10((e0 + F32(1e-5)).astype(np.float64))).astype(F32)
    return spectral, lag, loudness


def robust_frames(ref):
    """Frames whose window and bin choices cannot flip under a score error of SCORE_TOL.

    Between windows j and k the lead W[j] - W[k] is a sum over the bins
    the running sum steps across (at most those of [j, k) and [j + 48, k + 48)).
    A score error e moves each such p[i] by at most 2 e p[i]; the engine's
    single-precision step differences add at most 2**-24 of their size.
    """
    robust = np.ones(len(ref.scores), bool)
    for f, (scores, sums, best) in enumerate(zip(ref.scores, ref.window_sums, ref.window)):
        p = np.exp(scores - scores.max())
        p /= p.sum()
        p[0] = 0.0                                 # window 0 carries -100 and never competes
        cum = np.concatenate([[0.0], np.cumsum(p)])
        j = np.arange(1, pitch.WINDOWS)
        lo, hi = np.minimum(j, best), np.maximum(j, best)
        stepped = (cum[hi] - cum[lo]) + (cum[hi + pitch.WINDOW] - cum[lo + pitch.WINDOW])
        needed = (2 * SCORE_TOL + 2.0 ** -23) * stepped + 1e-13
        window_ok = np.all((sums[best] - sums[j] > needed) | (j == best))
        inside = scores[best: best + pitch.WINDOW]
        q = int(np.argmax(inside))
        bin_ok = np.all(np.delete(inside, q) < inside[q] - 2 * SCORE_TOL - 1e-6)
        robust[f] = window_ok and bin_ok
    return robust


def compare(ref, got_pitch, got_features):
    """Worst error in units of its tolerance per feature, pitch mismatches, excluded frames."""
    robust = robust_frames(ref)
    feats = ref.features
    wmax = ref.window_sums[np.arange(len(feats)), ref.window]
    tol = np.column_stack([np.full(len(feats), LOUDNESS_TOL),
                           feats[:, 1] * PROB_REL + 1e-9,
                           feats[:, 2] * RATIO_REL + RATIO_SHARED / wmax,
                           feats[:, 3] * RATIO_REL + RATIO_SHARED / wmax])
    diff = np.abs(np.asarray(got_features, np.float64) - feats)
    diff[~robust, 2:] = 0.0                                  # ratios belong to the chosen window
    err = diff / tol
    return {"loudness": err[:, 0].max(), "p0": err[:, 1].max(), "ratios": err[:, 2:].max(),
            "pitch_mismatches": int(np.sum((np.asarray(got_pitch) != ref.pitch) & robust)),
            "excluded": int(np.sum(~robust)), "frames": len(feats),
            "max_abs_err": diff.max(axis=0),
            "max_rel_err": np.where(feats != 0, diff / np.where(feats != 0, np.abs(feats), 1), 0).max(axis=0)}


def assert_within_tolerance(report, label):
    msg = f"{label}: {report}"
    assert max(report["loudness"], report["p0"], report["ratios"]) <= 1, msg
    assert report["pitch_mismatches"] == 0, msg
    assert report["excluded"] <= 0.05 * report["frames"], msg


def assert_far_outside(report, label):
    msg = f"{label}: {report}"
    assert max(report["p0"], report["ratios"]) > 100 and report["pitch_mismatches"] >= 5, msg


def decisions(scores, loudness):
    decoded = [pitch.decode(row) for row in scores]
    features = np.column_stack([loudness] + [[getattr(d, f) for d in decoded]
                                             for f in ("p0", "lower_ratio", "upper_ratio")])
    return np.array([d.pitch for d in decoded]), features.astype(F32)


@pytest.fixture(scope="module", params=SEEDS)
def stream(request):
    seed = request.param
    params = pitch.random_parameters(seed)
    signal = speech_like(N_FRAMES, seed=seed)
    return seed, params, signal, pitch.estimate_pitch(params, signal)


def run_engine(corvina, params, signal, path):
    pitch.write_parameters(params, path)
    model = corvina.PitchEstimator()
    model.read_parameters(str(path))
    context = model.new_context(1)
    outputs = [model(frame, context) for frame in frames(signal)]
    return np.concatenate([q for q, _ in outputs]), np.vstack([f for _, f in outputs]).astype(np.float64)


def test_engine_matches_reference(stream, tmp_path):
    corvina = pytest.importorskip("corvina")
    seed, params, signal, ref = stream
    got_pitch, got_features = run_engine(corvina, params, signal, tmp_path / "pitch.bin")
    assert_within_tolerance(compare(ref, got_pitch, got_features), f"weight seed {seed}")
    # The same comparison must reject a reference whose 3-tap planes are swapped.
    faulty = pitch.estimate_pitch(params, signal, fault="conv_taps_reversed")
    assert_far_outside(compare(faulty, got_pitch, got_features), f"weight seed {seed}, faulty reference")


def test_single_precision_stand_in_fits_tolerance(stream):
    seed, params, signal, ref = stream
    spectral, lag, loudness = single_precision_front_end(signal)
    # The direct DFT and lag sums agree with the FFT and running-energy form;
    # the square root magnifies rounding where d is near 0.
    np.testing.assert_allclose(spectral, ref.spectral, atol=2e-6)
    np.testing.assert_allclose(lag, ref.lag, atol=2e-5)
    np.testing.assert_allclose(loudness, ref.loudness, atol=LOUDNESS_TOL)
    scores = pitch.network(params, spectral, lag, dtype=F32)
    assert np.abs(scores - ref.scores).max() < SCORE_TOL / 8, f"seed {seed}"
    report = compare(ref, *decisions(scores, loudness))
    assert_within_tolerance(report, f"seed {seed}")
    assert max(report["loudness"], report["p0"], report["ratios"]) < 0.25, report


@pytest.mark.parametrize("fault", pitch.FAULTS)
def test_planted_faults_fall_far_outside_tolerance(stream, fault):
    seed, params, signal, ref = stream
    faulty = pitch.estimate_pitch(params, signal, fault=fault)
    assert_far_outside(compare(faulty, ref.pitch, ref.features), f"seed {seed}, {fault}")


def test_outputs_are_causal_and_informative(stream):
    seed, params, signal, ref = stream
    for field in ("spectral", "lag", "loudness", "scores", "features"):
        assert np.all(np.isfinite(getattr(ref, field))), field
    prob_max = np.exp(ref.scores.max(axis=1) - np.log(np.exp(ref.scores).sum(axis=1)))
    assert 0.05 < np.median(prob_max) < 0.9, "softmax flat or one-hot"
    assert len(set(ref.window)) >= 20, "the chosen window does not follow the input"
    assert np.all((ref.pitch >= 1) & (ref.pitch <= 383))
    assert np.any(ref.features[:, 2] > 0.01) and np.any(ref.features[:, 3] > 0.01)

    cut = 150
    changed = signal.copy()
    changed[cut * 160:] = np.random.default_rng(seed).standard_normal(len(signal) - cut * 160) * 0.1
    out = pitch.estimate_pitch(params, changed)
    for field in ("spectral", "lag", "loudness", "scores", "features"):
        np.testing.assert_allclose(getattr(out, field)[:cut], getattr(ref, field)[:cut], atol=1e-12,
                                   err_msg=f"seed {seed}, {field}")
    assert np.abs(out.scores[cut] - ref.scores[cut]).max() > 0.1


def test_parameter_file_order(tmp_path):
    params = pitch.random_parameters(0)
    assert list(params) == [name for name, _ in pitch.TENSORS]
    path = tmp_path / "pitch.bin"
    pitch.write_parameters(params, path)
    data = np.fromfile(path, dtype="<f2")
    assert data.nbytes == 3434112
    # Byte offsets in the file are the model block's offsets less 64.
    for name, block_offset in (("conv.weight", 321088), ("block0.depthwise.weight", 543424),
                               ("block5.project.bias", 543424 + 5 * 456960 + 456576),
                               ("out_norm.shift", 3285568), ("head.bias", 3433408)):
        start = (block_offset - 64) // 2
        np.testing.assert_array_equal(data[start: start + params[name].size], params[name].ravel(), name)


def test_front_end_silence_first_frame_and_period():
    spectral, lag, loudness = pitch.front_end(np.zeros(3 * 160, F32))
    np.testing.assert_allclose(spectral[:, :64], -5.0, rtol=1e-12)
    assert np.all(spectral[:, 64:] == 0) and np.all(lag == 0)
    np.testing.assert_allclose(loudness, -2.5, rtol=1e-12)

    n = np.arange(6 * 160)
    periodic = (np.sin(2 * np.pi * n / 100) + 0.5 * np.sin(6 * np.pi * n / 100 + 1)).astype(F32)
    spectral, lag, _ = pitch.front_end(periodic)
    assert np.all(spectral[0, 64:] == 0) and np.any(spectral[1, 64:] != 0)
    full = lag[-1]                                            # the history is full from frame 3 on
    assert full[99] < 1e-6 and full[199] < 1e-6
    assert full[49] > 0.5 and full[149] > 0.5


def test_decode_rules():
    uniform = pitch.decode(np.zeros(384))   # every window j >= 1 ties exactly, so do the bins
    assert (uniform.pitch, uniform.window, uniform.lower_ratio, uniform.upper_ratio) == (1, 1, 0.0, 1.0)
    assert uniform.p0 == pytest.approx(1 / 384)

    bin0 = np.zeros(384)
    bin0[0] = 40.0
    decoded = pitch.decode(bin0)
    assert decoded.pitch == 1 and decoded.p0 == pytest.approx(1.0)

    for j, lower_open, upper_open in ((96, False, True), (97, True, True), (240, True, True), (241, True, False)):
        s = np.full(384, -30.0)
        s[j - 96: j - 48] = -1.0                        # one octave below, e**-1 of the window's mass
        s[j + 96: j + 144] = -1.0                       # one octave above (cut at bin 383)
        s[j: j + 48] = 0.0
        d = pitch.decode(s)
        assert (d.window, d.pitch) == (j, j)
        assert d.lower_ratio == (pytest.approx(np.exp(-1), rel=1e-9) if lower_open else 0.0), j
        assert d.upper_ratio == (pytest.approx(np.exp(-1), rel=1e-9) if upper_open else 0.0), j

    s = np.full(384, -30.0)
    s[100:148] = 0.0
    s[[130, 120]] = 5.0
    d = pitch.decode(s)
    assert (d.window, d.pitch) == (100, 120)
