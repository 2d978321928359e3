"""The phone extractor: 16 kHz samples to 256 content features a frame."""
import torch.nn.functional as F
from torch import nn

from ..layouts import PHONE_LAYOUT
from .layers import CausalConv1d, Network, ResidualConvBlock, channels_last, gelu, run_gru

HOP = 160
FEATURES = 256


class PhoneExtractor(Network):
    LAYOUT = PHONE_LAYOUT
    # (in, out, kernel, stride) of the strided front convolutions: 160 samples become one step.
    FRONT = [(1, 32, 10, 5), (32, 64, 3, 2), (64, 128, 3, 2), (128, 256, 3, 2), (256, 256, 3, 2), (256, 256, 2, 2)]

    def __init__(self):
        super().__init__()
        self.front = nn.ModuleList(CausalConv1d(i, o, k, stride=s, bias=False) for i, o, k, s in self.FRONT)
        self.input_dense = nn.Linear(256, 256)
        self.gru = nn.GRU(256, 256, num_layers=3, batch_first=True)
        self.causal_conv = CausalConv1d(256, 256, 7)
        self.causal_norm = nn.LayerNorm(256)
        self.blocks = nn.ModuleList(ResidualConvBlock(256, 17, 768) for _ in range(8))
        self.out_norm = nn.LayerNorm(256)
        self.output_dense = nn.Linear(256, FEATURES)

    def forward(self, samples, state=None):
        """samples [B, 160 T] -> features [B, T, 256]. With a state dict the
        call continues the stream that state holds (frame by frame use)."""
        x = samples.reshape(samples.shape[0], 1, -1)
        for conv in self.front:
            x = gelu(conv(x, state))
        x = x.transpose(1, 2)
        u = self.input_dense(F.layer_norm(x, (256,)))
        x = (u + run_gru(self.gru, u, state)).transpose(1, 2)
        x = channels_last(self.causal_conv(x, state), self.causal_norm)
        for block in self.blocks:
            x = block(x, state)
        return self.output_dense(gelu(self.out_norm(x.transpose(1, 2))))

    def step(self, frame, state):
        """One frame [B, 160] -> [B, 256], history carried in state."""
        return self(frame, state)[:, 0]
