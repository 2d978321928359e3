"""`corvina corpus` and `corvina train …`: the command-line side of training.
PyTorch is imported only when a command runs, so the rest of the command
works without the train extra."""
import argparse
import os


def add_commands(sub):
    """Add the `corpus` and `train` commands to an argparse sub-parser set."""
    corpus = sub.add_parser("corpus", help="make a training corpus with the system's speech synthesizers",
                            description="Make (or complete) a multi-speaker corpus: fortunes read by flite, "
                            "festival and espeak-ng voices (install them with apt-get: flite festival "
                            "festvox-us-slt-hts festvox-kallpc16k espeak-ng fortunes), with pitch tracks and "
                            "phone labels; optionally a folder of your own recordings.")
    try:
        from .training.corpus import add_arguments, run
    except ImportError as e:         # the train extra is missing: the command says so when run
        corpus.set_defaults(run=lambda args, error=e: _missing(error))
    else:
        add_arguments(corpus)
        corpus.set_defaults(run=run)
    train = sub.add_parser("train", help="train a model directory's networks on a corpus (needs the train extra)",
                           description="Train one network of a model directory on a corpus made by `corvina corpus`. "
                           "Run the stages in order: pitch, phone, waveform; finetune adds a new voice to a trained "
                           "model. Each stage checkpoints into --checkpoints and resumes from there when run again.")
    stages = train.add_subparsers(dest="stage", required=True, metavar="STAGE")
    helps = {"pitch": "pitch estimator: 384-bin classification against the corpus's pitch tracks",
             "phone": "phone extractor: content features through a frame-level phone classifier",
             "waveform": "waveform generator and speaker rows, the extractors frozen",
             "finetune": "a new voice from recordings without transcripts: generator and new rows"}
    for name, text in helps.items():
        p = stages.add_parser(name, help=text, description=text)
        p.add_argument("corpus", help="corpus folder (corvina corpus)")
        p.add_argument("-m", "--model", required=True,
                       help="model directory: the stage writes its file there" +
                       ("; finetune reads the trained model from it" if name == "finetune" else ""))
        if name == "finetune":
            p.add_argument("-o", "--output", required=True, help="model directory to write the fine-tuned model to")
        p.add_argument("--speakers", help="comma-separated corpus speakers to train on (default: all not held out)")
        p.add_argument("--checkpoints", required=True, help="folder for checkpoints (resumed when present)")
        p.add_argument("--minutes", type=float, help="training-time budget in all, resumed runs included")
        p.add_argument("--steps", type=int, help="step budget in all")
        p.add_argument("--sentences", type=int, metavar="N", help="train on the corpus's first N sentences only")
        p.add_argument("--batch", type=int, help="segments a step")
        p.add_argument("--frames", type=int, help="10 ms frames a segment")
        p.add_argument("--validate-every", type=int, default=200, metavar="STEPS")
        p.add_argument("--device", default="cpu", help="torch device, e.g. cpu or cuda (default cpu)")
        p.add_argument("--threads", type=int, help="CPU threads for PyTorch")
        p.add_argument("--learning-rate", type=float, metavar="RATE",
                       help="AdamW's rate from now on, also over a resumed run's (default: the stage's own); "
                            "lower it for the last part of a long run")
        if name in ("waveform", "finetune"):
            p.add_argument("--adversarial", action="store_true",
                           help="also train critics and learn to fool them, the usual way to clean up "
                                "harmonics; it needs hours: resume it from a run without")
            p.add_argument("--phase-weight", type=float, default=0.0, metavar="W",
                           help="weight of the loss on the phase's advance between frames and bins, "
                                "against breathy voices (default 0)")
        p.set_defaults(run=run_train)


def _missing(error):
    raise SystemExit(f"corvina: {error.name or error} is missing: pip install 'corvina[train]'")


def run_train(args):
    try:
        import torch
    except ImportError as e:
        _missing(e)

    from .training.data import CorpusError
    from .training.stages import make_stage
    from .training.trainer import train

    if args.minutes is None and args.steps is None:
        raise SystemExit("corvina train: give --minutes, --steps or both")
    if args.threads:
        torch.set_num_threads(args.threads)
    sizes = {k: v for k, v in (("batch", args.batch), ("frames", args.frames)) if v}
    if args.stage == "finetune":
        sizes["out_dir"] = args.output
    if args.stage in ("waveform", "finetune"):
        os.makedirs(args.checkpoints, exist_ok=True)
        sizes["cache"] = os.path.join(args.checkpoints, f"{args.stage}_inputs.pt")
        sizes["adversarial"] = args.adversarial
        sizes["phase_weight"] = args.phase_weight
    speakers = args.speakers.split(",") if args.speakers else None
    try:
        stage = make_stage(args.stage, args.corpus, args.model, speakers, args.device, args.sentences, **sizes)
    except (CorpusError, FileNotFoundError, ValueError) as e:
        raise SystemExit(f"corvina train {args.stage}: {e}")
    train(stage, os.path.join(args.checkpoints), steps=args.steps, minutes=args.minutes,
          validate_every=args.validate_every, learning_rate=args.learning_rate)
    return 0


def main(argv=None):
    parser = argparse.ArgumentParser(prog="corvina")
    add_commands(parser.add_subparsers(dest="command", required=True))
    args = parser.parse_args(argv)
    return args.run(args)


if __name__ == "__main__":
    raise SystemExit(main())
