"""The training loop every stage shares: a step or time budget, a progress
bar, a periodic validation figure, checkpoints that a later run resumes
from, a device choice, and PyTorch's distributed data parallel when started
under torchrun."""
import os
import signal
import sys
import threading
import time

import numpy as np
import torch
import torch.distributed as dist
from tqdm import tqdm


class Stage:
    """One training stage. Subclasses set `name`, build `self.trainable`
    (an nn.Module holding every trained parameter, whose forward takes a
    batch and returns (loss, {figure: float})) and implement `batch` and
    `validate`."""
    name = "stage"
    learning_rate = 3e-4
    device = "cpu"

    def batch(self, rng):
        """The tensors of one random training batch for this process."""
        raise NotImplementedError

    def validate(self):
        """{figure: float} on the validation sentences; the first figure is
        the one shown and kept as the best."""
        raise NotImplementedError

    def finish(self):
        """Called once at the end of a run on the main process (export)."""


def distributed():
    """(rank, world size), starting the process group under torchrun."""
    world = int(os.environ.get("WORLD_SIZE", "1"))
    if world > 1 and not dist.is_initialized():
        dist.init_process_group("nccl" if torch.cuda.is_available() and os.environ.get("CORVINA_NCCL") else "gloo")
    return (dist.get_rank(), world) if world > 1 else (0, 1)


def _save(path, payload):
    temporary = path + ".partial"
    torch.save(payload, temporary)
    os.replace(temporary, path)


def train(stage, checkpoint_dir, steps=None, minutes=None, validate_every=200, checkpoint_minutes=5.0,
          seed=0, log=sys.stderr, learning_rate=None):
    """Train until `steps` steps or `minutes` of training time in all (both
    counted over resumed runs too). `learning_rate` replaces the stage's rate
    and a resumed optimiser's. Returns the last validation figures."""
    if steps is None and minutes is None:
        raise ValueError("give a step budget, a time budget or both")
    rank, world = distributed()
    main = rank == 0
    os.makedirs(checkpoint_dir, exist_ok=True)
    path = os.path.join(checkpoint_dir, f"{stage.name}.pt")
    model = stage.trainable
    optimiser = torch.optim.AdamW([p for p in model.parameters() if p.requires_grad], lr=stage.learning_rate,
                                  betas=(0.8, 0.99), weight_decay=1e-4)
    # A stage with critics (adversarial training) trains them beside the
    # model, with their own optimiser, on the batch the model last saw.
    critic = getattr(stage, "critic", None)
    critic_optimiser = (torch.optim.AdamW(critic.parameters(), lr=stage.learning_rate, betas=(0.8, 0.99),
                                          weight_decay=1e-4) if critic is not None else None)
    done, elapsed, history = 0, 0.0, []
    if os.path.exists(path):
        saved = torch.load(path, map_location=stage.device, weights_only=False)
        missing, unexpected = model.load_state_dict(saved["model"], strict=False)
        if unexpected:
            raise ValueError(f"{path}: a checkpoint of another network ({', '.join(unexpected[:3])} …)")
        done, elapsed, history = saved["step"], saved["seconds"], saved["history"]
        if main:
            print(f"{stage.name}: resuming {path} at step {done} ({elapsed / 60:.1f} min trained)", file=log)
        if missing:
            # The stage gained parameters since (e.g. a new head): they start
            # fresh, and so does the optimiser's state.
            if main:
                print(f"{stage.name}: new parameters start fresh: {', '.join(missing[:4])}", file=log)
        else:
            optimiser.load_state_dict(saved["optimiser"])
        if critic is not None and "critic" in saved:
            critic.load_state_dict(saved["critic"])
            critic_optimiser.load_state_dict(saved["critic_optimiser"])
    if learning_rate is not None:
        for group in optimiser.param_groups + (critic_optimiser.param_groups if critic is not None else []):
            group["lr"] = learning_rate
    # Under torchrun, the forward runs through the wrapper that averages the
    # gradients over the processes.
    runner = torch.nn.parallel.DistributedDataParallel(model) if world > 1 else model
    rng = np.random.default_rng([seed, rank, done])
    total = steps if steps is not None else None
    bar = tqdm(total=total, initial=done, desc=stage.name, disable=not main, file=log, dynamic_ncols=True)
    last_checkpoint = time.monotonic()
    figures = {}

    def checkpoint():
        if main:
            payload = {"model": model.state_dict(), "optimiser": optimiser.state_dict(), "step": done,
                       "seconds": elapsed, "history": history}
            if critic is not None:
                payload.update(critic=critic.state_dict(), critic_optimiser=critic_optimiser.state_dict())
            _save(path, payload)

    def stop(signum, frame):
        raise KeyboardInterrupt(f"signal {signum}")

    # A scheduler's SIGTERM ends the run as Ctrl+C does: with a checkpoint.
    if threading.current_thread() is threading.main_thread():
        signal.signal(signal.SIGTERM, stop)
    try:
        while (steps is None or done < steps) and (minutes is None or elapsed < minutes * 60):
            start = time.monotonic()
            model.train()
            loss, shown = runner(*stage.batch(rng))
            optimiser.zero_grad(set_to_none=True)
            loss.backward()
            torch.nn.utils.clip_grad_norm_(model.parameters(), 5.0)
            optimiser.step()
            if critic is not None:
                critic_loss = stage.trainable.critic_loss()
                critic_optimiser.zero_grad(set_to_none=True)
                critic_loss.backward()
                critic_optimiser.step()
                shown["critic"] = critic_loss.item()
            done += 1
            elapsed += time.monotonic() - start
            bar.update(1)
            bar.set_postfix({k: f"{v:.3g}" for k, v in shown.items()}, refresh=False)
            if done % validate_every == 0 and main:
                figures = _validate(stage, model)
                history.append({"step": done, "seconds": round(elapsed, 1), **figures})
                bar.write(f"{stage.name} step {done} ({elapsed / 60:.1f} min): "
                          + ", ".join(f"{k} {v:.4g}" for k, v in figures.items()))
            if time.monotonic() - last_checkpoint > checkpoint_minutes * 60:
                checkpoint()
                last_checkpoint = time.monotonic()
    finally:
        bar.close()
        checkpoint()
    if main:
        if not figures:
            figures = _validate(stage, model)
            history.append({"step": done, "seconds": round(elapsed, 1), **figures})
            print(f"{stage.name} step {done}: " + ", ".join(f"{k} {v:.4g}" for k, v in figures.items()), file=log)
        checkpoint()
        stage.finish()
    return figures


def _validate(stage, model):
    model.eval()
    with torch.no_grad():
        return stage.validate()
