"""Independent float64 models used to check the engine.

Each module here computes a whole stream at once (convolutions over the
entire sequence, recurrences as plain loops) instead of the engine's
frame-by-frame rings, so that a wrong tap order or ring position in the
engine shows up as a large disagreement.
"""
