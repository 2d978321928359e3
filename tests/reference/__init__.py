"""Independent float64 models of the engine, each computing a whole stream at
once (not the engine's frame-by-frame rings), so that a wrong tap order or
ring position shows up as a large disagreement."""
