"""Critics for adversarial training of the generator. Spectral losses alone
leave the harmonics smeared into noise (they cannot tell a clean harmonic
from noise of the same level); critics that look at the waveform folded by
its period, and at a spectrogram, can. They are used in training only and
never exported."""
import torch
import torch.nn.functional as F
from torch import nn
from torch.nn.utils.parametrizations import weight_norm

SLOPE = 0.1


def _score(convs, out, x):
    """(score map, every layer's activations) of a stack of convolutions."""
    features = []
    for conv in convs:
        x = F.leaky_relu(conv(x), SLOPE)
        features.append(x)
    return out(x), features


class PeriodCritic(nn.Module):
    """The waveform folded into rows of `period` samples, read by 2-D
    convolutions along the time axis only: each column is every
    period-th sample, so a steady period shows as a smooth column."""

    def __init__(self, period, channels=(16, 32, 64, 128)):
        super().__init__()
        self.period = period
        sizes = (1,) + channels
        self.convs = nn.ModuleList(weight_norm(nn.Conv2d(a, b, (5, 1), (3, 1), padding=(2, 0)))
                                   for a, b in zip(sizes, sizes[1:]))
        self.convs.append(weight_norm(nn.Conv2d(channels[-1], channels[-1], (5, 1), padding=(2, 0))))
        self.out = weight_norm(nn.Conv2d(channels[-1], 1, (3, 1), padding=(1, 0)))

    def forward(self, audio):
        batch, length = audio.shape
        pad = -length % self.period
        x = F.pad(audio, (0, pad), mode="reflect").view(batch, 1, -1, self.period)
        return _score(self.convs, self.out, x)


class SpectrogramCritic(nn.Module):
    """2-D convolutions over a log-magnitude spectrogram."""

    def __init__(self, n_fft=1024, hop=256, channels=16):
        super().__init__()
        self.n_fft, self.hop = n_fft, hop
        self.register_buffer("window", torch.hann_window(n_fft), persistent=False)
        self.convs = nn.ModuleList([weight_norm(nn.Conv2d(1, channels, (3, 9), padding=(1, 4)))] + [
            weight_norm(nn.Conv2d(channels, channels, (3, 9), (2, 2), padding=(1, 4))) for _ in range(3)] + [
            weight_norm(nn.Conv2d(channels, channels, (3, 3), padding=1))])
        self.out = weight_norm(nn.Conv2d(channels, 1, (3, 3), padding=1))

    def forward(self, audio):
        spectrum = torch.stft(audio, self.n_fft, self.hop, window=self.window, return_complex=True).abs()
        x = torch.log(spectrum + 1e-5)[:, None]
        return _score(self.convs, self.out, x)


class Critics(nn.Module):
    """Period critics at 2, 3, 5, 7 and 11 samples and one spectrogram
    critic, trained with least-squares targets (1 real, 0 generated)."""

    def __init__(self, periods=(2, 3, 5, 7, 11)):
        super().__init__()
        self.critics = nn.ModuleList([PeriodCritic(p) for p in periods] + [SpectrogramCritic()])

    def loss(self, generated, real):
        """The critics' own loss on one batch (generated audio detached)."""
        total = 0.0
        for critic in self.critics:
            fake_score, _ = critic(generated.detach())
            real_score, _ = critic(real)
            total = total + torch.mean((1 - real_score) ** 2) + torch.mean(fake_score ** 2)
        return total

    def generator_loss(self, generated, real):
        """(adversarial, feature matching) losses for the generator: how far
        the critics are from calling the output real, and how far their
        inner features of the output are from those of the real audio."""
        adversarial = matching = 0.0
        for critic in self.critics:
            fake_score, fake_features = critic(generated)
            with torch.no_grad():
                _, real_features = critic(real)
            adversarial = adversarial + torch.mean((1 - fake_score) ** 2)
            matching = matching + sum(F.l1_loss(f, r) for f, r in zip(fake_features, real_features))
        return adversarial, matching
