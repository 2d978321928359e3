"""The engine against what users would pick instead: the same three networks in
PyTorch (bench/torch_models.py), on the same parameter files and input, run
frame by frame with carried state and over the whole file at once.

How to run (PyTorch is not a project dependency and CI never runs this):

    pip install torch==2.13.0
    cmake -S . -B build/torch -G Ninja -DCORVINA_BUILD_PYTHON=ON && cmake --build build/torch
    python3 bench/bench_torch.py --build build/torch --frames 500 --json torch_bench.json

One thread throughout: torch.set_num_threads(1), eager mode under
torch.inference_mode(). Weights are random, from the test reference's writers.
Every model gets the same inputs in all three forms: the generator is fed the
engine's phone features and pitch outputs, so each comparison isolates one
network (PyTorch's own upstream outputs would cost the same time).

Agreement: phone features and output samples within 1e-2 of their RMS; pitch
features within 1e-2 where the bins agree, and the bins agree on at least 99%
of the frames (a near-tie in the scores may flip a bin either way). The exit
status is 1 when any of these fails.
"""
import argparse
import json
import os
import platform
import sys
import tempfile
import time

import numpy as np
import torch

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
KINDS = {"phone": "PhoneExtractor", "pitch": "PitchEstimator", "waveform": "WaveformGenerator"}
MODELS = tuple(KINDS)
FRAME_US = 10000.0
REL_TOL, BIN_AGREEMENT = 1e-2, 0.99


def parse_args():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--build", default=os.path.join(ROOT, "build", "torch"), help="directory holding corvina")
    ap.add_argument("--frames", type=int, default=500)
    ap.add_argument("--warm-up", type=int, default=20, help="frames run on throw-away state first")
    ap.add_argument("--repeats", type=int, default=5, help="whole-file runs (median taken)")
    ap.add_argument("--seed", type=int, default=1, help="weights, signal and speaker")
    ap.add_argument("--json", help="write the figures here")
    return ap.parse_args()


def timed(call, *args):
    start = time.perf_counter_ns()
    out = call(*args)
    return out, (time.perf_counter_ns() - start) / 1000.0


def load_models(corvina, references, seed, folder):
    """Engine and PyTorch models of each kind, on one random parameter file each."""
    import torch_models
    engine, torch_nets = {}, {}
    for name, kind in KINDS.items():
        path = os.path.join(folder, name + ".bin")
        references[name].write_parameters(references[name].random_parameters(seed), path)
        engine[name] = getattr(corvina, kind)()
        engine[name].read_parameters(path)
        torch_nets[name] = getattr(torch_models, kind)().load(path)
    return engine, torch_nets


def run_engine(models, rows, speaker):
    """Frame by frame on fresh contexts: outputs and per-frame times (us) per model."""
    ctx = {name: models[name].new_context(1) for name in MODELS}
    times = {name: [] for name in MODELS}
    feats, bins, pfeats, samples = [], [], [], []
    for x in rows:
        f, t = timed(models["phone"], x, ctx["phone"])
        times["phone"].append(t)
        (q, pf), t = timed(models["pitch"], x, ctx["pitch"])
        times["pitch"].append(t)
        y, t = timed(models["waveform"], f, q, pf, speaker, ctx["waveform"])
        times["waveform"].append(t)
        feats.append(f)
        bins.append(q)
        pfeats.append(pf)
        samples.append(y)
    outputs = {"phone": np.concatenate(feats), "bins": np.concatenate(bins), "pitch": np.concatenate(pfeats),
               "waveform": np.concatenate(samples)}
    return outputs, times


def run_torch_steps(nets, rows, engine_out, speaker):
    """Frame by frame with carried state; the generator gets the engine's inputs."""
    state = {name: nets[name].new_state() for name in MODELS}
    times = {name: [] for name in MODELS}
    feats, bins, pfeats, samples = [], [], [], []
    spk = torch.from_numpy(speaker)
    for i, x in enumerate(rows):
        f, t = timed(nets["phone"].step, torch.from_numpy(x), state["phone"])
        times["phone"].append(t)
        (q, pf), t = timed(nets["pitch"].step, torch.from_numpy(x), state["pitch"])
        times["pitch"].append(t)
        inputs = [torch.from_numpy(engine_out[key][i:i + 1]) for key in ("phone", "bins", "pitch")]
        y, t = timed(nets["waveform"].step, *inputs, spk, state["waveform"])
        times["waveform"].append(t)
        feats.append(f.numpy())
        bins.append(q.numpy())
        pfeats.append(pf.numpy())
        samples.append(y.numpy())
    outputs = {"phone": np.concatenate(feats), "bins": np.concatenate(bins), "pitch": np.concatenate(pfeats),
               "waveform": np.concatenate(samples)}
    return outputs, times


def run_torch_whole(nets, signal, engine_out, speaker, repeats):
    """Whole file per model, `repeats` times: outputs of the last run and the
    median time per frame (us) per model."""
    n = len(engine_out["bins"])
    sig = torch.from_numpy(signal)
    inputs = [torch.from_numpy(engine_out[key]) for key in ("phone", "bins", "pitch")]
    spk = torch.from_numpy(speaker)
    runs = {name: [] for name in MODELS}
    for _ in range(repeats):
        f, t = timed(nets["phone"], sig)
        runs["phone"].append(t / n)
        (q, pf), t = timed(nets["pitch"], sig)
        runs["pitch"].append(t / n)
        y, t = timed(nets["waveform"], *inputs, spk)
        runs["waveform"].append(t / n)
    outputs = {"phone": f.numpy(), "bins": q.numpy(), "pitch": pf.numpy(), "waveform": y.numpy()}
    return outputs, {name: float(np.median(v)) for name, v in runs.items()}


def agreement(engine, other):
    """Max abs error per model against the engine, and whether it is within tolerance."""
    out = {}
    for name in ("phone", "waveform"):
        err = float(np.abs(other[name].astype(np.float64) - engine[name]).max())
        rms = float(np.sqrt(np.mean(engine[name].astype(np.float64) ** 2)))
        out[name] = {"max_abs_error": err, "output_rms": rms, "relative": err / rms, "ok": err <= REL_TOL * rms}
    same = other["bins"].astype(np.int64) == engine["bins"]
    feature_err = np.abs(other["pitch"][same].astype(np.float64) - engine["pitch"][same]).max(axis=0)
    names = ("loudness", "p0", "lower_ratio", "upper_ratio")
    out["pitch"] = {"bins_equal": float(same.mean()),
                    "max_bin_difference": int(np.abs(other["bins"].astype(np.int64) - engine["bins"]).max()),
                    "max_abs_error": dict(zip(names, map(float, feature_err))),
                    "ok": bool(same.mean() >= BIN_AGREEMENT and feature_err.max() <= REL_TOL)}
    return out


def summarise(engine_times, step_times, whole_per_frame):
    chain = lambda t: np.sum([t[m] for m in MODELS], axis=0)   # noqa: E731
    engine_times = dict(engine_times, chain=chain(engine_times))
    step_times = dict(step_times, chain=chain(step_times))
    whole_per_frame = dict(whole_per_frame, chain=sum(whole_per_frame.values()))
    table = {}
    for name in MODELS + ("chain",):
        e_med = float(np.median(engine_times[name]))
        s_med = float(np.median(step_times[name]))
        table[name] = {
            "engine": {"median_us": e_med, "p99_us": float(np.percentile(engine_times[name], 99)),
                       "real_time_factor": FRAME_US / e_med, "engine_speed_up": 1.0},
            "torch_frame_by_frame": {"median_us": s_med, "p99_us": float(np.percentile(step_times[name], 99)),
                                     "real_time_factor": FRAME_US / s_med, "engine_speed_up": s_med / e_med},
            "torch_whole_file": {"median_us": whole_per_frame[name], "p99_us": None,
                                 "real_time_factor": FRAME_US / whole_per_frame[name],
                                 "engine_speed_up": whole_per_frame[name] / e_med},
        }
    return table


def print_table(table, n_frames):
    print(f"\nus per 10 ms frame, {n_frames} frames, one thread "
          "(whole file: median over runs of its time / frames; no p99)")
    print(f"{'model':<9} {'implementation':<21} {'median us':>10} {'p99 us':>9} {'real-time x':>12} "
          f"{'engine speed-up':>16}")
    for name, rows in table.items():
        for impl, r in rows.items():
            p99 = "-" if r["p99_us"] is None else f"{r['p99_us']:.0f}"
            print(f"{name:<9} {impl.replace('_', ' '):<21} {r['median_us']:>10.0f} {p99:>9} "
                  f"{r['real_time_factor']:>12.1f} {r['engine_speed_up']:>15.1f}x")


def print_agreement(label, agree):
    ph, pt, wv = agree["phone"], agree["pitch"], agree["waveform"]
    feats = ", ".join(f"{k} {v:.2g}" for k, v in pt["max_abs_error"].items())
    print(f"{label}: phone max abs {ph['max_abs_error']:.3g} ({ph['relative']:.2g} of rms); "
          f"pitch bins equal {100 * pt['bins_equal']:.1f}% (max diff {pt['max_bin_difference']}), "
          f"features max abs {feats}; waveform max abs {wv['max_abs_error']:.3g} ({wv['relative']:.2g} of rms)"
          f"  -> {'agree' if all(a['ok'] for a in agree.values()) else 'DISAGREE'}")


def main():
    args = parse_args()
    torch.set_num_threads(1)
    torch.set_num_interop_threads(1)
    sys.path[:0] = [os.path.abspath(args.build), os.path.join(ROOT, "tests"), os.path.dirname(__file__)]
    import corvina
    from reference import phone, pitch, waveform
    from signals import frames, speech_like

    with tempfile.TemporaryDirectory() as folder:
        engine, nets = load_models(corvina, {"phone": phone, "pitch": pitch, "waveform": waveform},
                                   args.seed, folder)
    signal = speech_like(args.frames, seed=args.seed)
    rows = frames(signal)
    speaker = (0.3 * np.random.default_rng(args.seed).standard_normal((1, 256))).astype(np.float32)
    warm = frames(speech_like(args.warm_up, seed=args.seed + 1))

    with torch.inference_mode():
        warm_out, _ = run_engine(engine, warm, speaker)
        run_torch_steps(nets, warm, warm_out, speaker)
        run_torch_whole(nets, warm.reshape(-1), warm_out, speaker, 1)

        engine_out, engine_times = run_engine(engine, rows, speaker)
        step_out, step_times = run_torch_steps(nets, rows, engine_out, speaker)
        whole_out, whole_times = run_torch_whole(nets, signal, engine_out, speaker, args.repeats)

    agree = {"torch_frame_by_frame": agreement(engine_out, step_out),
             "torch_whole_file": agreement(engine_out, whole_out)}
    table = summarise(engine_times, step_times, whole_times)
    print_table(table, args.frames)
    print()
    for label, a in agree.items():
        print_agreement(label.replace("_", " "), a)
    target = table["chain"]["torch_frame_by_frame"]["engine_speed_up"]
    print(f"\nchain: engine {target:.1f}x faster than PyTorch frame by frame (target 10x), "
          f"{table['chain']['torch_whole_file']['engine_speed_up']:.1f}x faster than PyTorch whole file")

    ok = all(m["ok"] for a in agree.values() for m in a.values())
    if args.json:
        report = {"frames": args.frames, "repeats": args.repeats, "seed": args.seed, "threads": 1,
                  "torch_version": torch.__version__, "python": platform.python_version(),
                  "processor": platform.processor() or platform.machine(), "build": os.path.abspath(args.build),
                  "timings": table, "agreement": agree, "agree": ok,
                  "target_speed_up_vs_frame_by_frame": 10.0, "target_met": bool(target >= 10.0)}
        with open(args.json, "w") as f:
            json.dump(report, f, indent=2)
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
