// The whole chain (phone extractor, pitch estimator, waveform generator) on
// fixed random weights and a fixed speech-like input for 200 frames: every
// kernel set this processor supports, run through the C interface, against
// the chain built from the scalar kernel definitions, bit for bit. A kernel
// change that alters any rounding anywhere shows up here.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "check.h"
#include "engine/corvina.h"
#include "engine/kernel_set.h"
#include "phone/phone_kernels.h"
#include "pitch/pitch_decoder.h"
#include "pitch/pitch_network.h"
#include "pitch/spectral_front_end.h"
#include "test_waveform_support.h"
#include "waveform/waveform_kernels.h"

using namespace waveform_test;

namespace {

constexpr int kFrames = 200;
constexpr int kHop = CORVINA_IN_HOP_LENGTH;

template <std::size_t N>
void FillMatrixRows(f16 (&out)[N], int fan_in, float gain, Rng& rng) {
  FillHalves(out, N, gain * std::sqrt(3.0f / static_cast<float>(fan_in)), rng);
}

void FillScale(f16* out, int n, Rng& rng) {
  std::uniform_real_distribution<float> u(0.8f, 1.2f);
  for (int i = 0; i < n; ++i) out[i] = ToHalf(u(rng));
}

// Gains that keep every stage of order one over the stream.
Block<PhoneExtractorBlock> RandomPhoneModel(Rng& rng) {
  auto m = NewBlock<PhoneExtractorBlock>();
  FillMatrixRows(m->conv1, 10, 6.0f, rng);
  FillMatrixRows(m->conv2, 32 * 3, 2.0f, rng);
  FillMatrixRows(m->conv3, 64 * 3, 2.0f, rng);
  FillMatrixRows(m->conv4, 128 * 3, 2.0f, rng);
  FillMatrixRows(m->conv5, 256 * 3, 2.0f, rng);
  FillMatrixRows(m->conv6, 256 * 2, 2.0f, rng);
  FillMatrixRows(m->input_dense.weight, 256, 1.0f, rng);
  FillHalves(m->input_dense.bias, kChannels, 0.1f, rng);
  for (auto& layer : m->recurrent) {
    FillMatrixRows(layer.input_side.weight, 256, 1.0f, rng);
    FillHalves(layer.input_side.bias, 3 * kChannels, 0.1f, rng);
    FillMatrixRows(layer.state_side.weight, 256, 0.9f, rng);
    FillHalves(layer.state_side.bias, 3 * kChannels, 0.1f, rng);
  }
  FillMatrixRows(m->causal_conv.weight, 256 * 7, 1.0f, rng);
  FillHalves(m->causal_conv.bias, kChannels, 0.1f, rng);
  FillScale(m->causal_norm_scale, kChannels, rng);
  FillHalves(m->causal_norm_shift, kChannels, 0.1f, rng);
  for (auto& b : m->blocks) {
    FillMatrixRows(b.depthwise, 17, 1.0f, rng);
    FillHalves(b.depthwise_bias, kChannels, 0.1f, rng);
    FillMatrixRows(b.expand, 256, 1.0f, rng);
    FillHalves(b.expand_bias, kHiddenChannels, 0.1f, rng);
    FillMatrixRows(b.project, 768, 0.7f, rng);
    FillHalves(b.project_bias, kChannels, 0.1f, rng);
  }
  FillScale(m->final_norm_scale, kChannels, rng);
  FillHalves(m->final_norm_shift, kChannels, 0.1f, rng);
  FillMatrixRows(m->output_dense.weight, 256, 1.0f, rng);
  FillHalves(m->output_dense.bias, kChannels, 0.1f, rng);
  return m;
}

Block<PitchEstimatorBlock> RandomPitchModel(Rng& rng) {
  auto m = NewBlock<PitchEstimatorBlock>();
  for (Dense192Weights* d : {&m->spectral_in, &m->spectral_hidden, &m->lag_hidden}) {
    FillMatrixRows(d->weight, kPitchWidth, 1.0f, rng);
    FillHalves(d->bias, kPitchWidth, 0.1f, rng);
  }
  FillMatrixRows(m->lag_in, kLags, 1.0f, rng);
  FillHalves(m->lag_in_bias, kPitchWidth, 0.1f, rng);
  FillMatrixRows(m->temporal_conv, 3 * kPitchWidth, 1.0f, rng);
  FillHalves(m->temporal_conv_bias, kPitchWidth, 0.1f, rng);
  FillScale(m->input_norm_scale, kPitchWidth, rng);
  FillHalves(m->input_norm_shift, kPitchWidth, 0.1f, rng);
  for (auto& b : m->blocks) {
    FillMatrixRows(b.depthwise, kPitchDepthwiseTaps, 1.0f, rng);
    FillHalves(b.depthwise_bias, kPitchWidth, 0.1f, rng);
    FillMatrixRows(b.expand, kPitchWidth, 1.0f, rng);
    FillHalves(b.expand_bias, kPitchExpanded, 0.1f, rng);
    FillMatrixRows(b.project, kPitchExpanded, 0.7f, rng);
    FillHalves(b.project_bias, kPitchWidth, 0.1f, rng);
  }
  FillScale(m->output_norm_scale, kPitchWidth, rng);
  FillHalves(m->output_norm_shift, kPitchWidth, 0.1f, rng);
  FillMatrixRows(m->head, kPitchWidth, 3.0f, rng);
  FillHalves(m->head_bias, kPitchBins, 0.1f, rng);
  return m;
}

// A gliding voiced tone with harmonics and noise, a stretch of exact silence
// every 50 frames.
std::vector<float> SpeechLikeSignal(Rng& rng) {
  std::vector<float> x(static_cast<std::size_t>(kFrames) * kHop, 0.0f);
  std::normal_distribution<float> noise(0.0f, 0.02f);
  double phase = 0.0;
  for (std::size_t i = 0; i < x.size(); ++i) {
    const int frame = static_cast<int>(i / kHop);
    phase += 2.0 * 3.14159265358979 * (110.0 + 90.0 * std::sin(static_cast<double>(i) * 3e-5)) / 16000.0;
    if (frame % 50 >= 44) continue;
    const float level = 0.3f * (0.6f + 0.4f * std::sin(0.21f * static_cast<float>(frame)));
    x[i] = level * static_cast<float>(std::sin(phase) + 0.5 * std::sin(3.0 * phase)) + noise(rng);
  }
  return x;
}

struct FrameOutputs {
  float phone[kChannels];
  std::int32_t pitch_bin;
  float pitch_features[CORVINA_PITCH_FEATURES];
  float samples[kOutHop];
};

struct Models {
  Block<PhoneExtractorBlock> phone;
  Block<PitchEstimatorBlock> pitch;
  Block<WaveformGeneratorBlock> waveform;
};

// The chain from the definitions, composed as the C interface composes it.
std::vector<FrameOutputs> ScalarChain(const Models& m, const std::vector<float>& signal, const float* speaker) {
  auto phone = NewBlock<PhoneContext>();
  auto pitch = NewBlock<PitchContext>();
  auto waveform = NewBlock<WaveformContext>();
  std::vector<FrameOutputs> out(kFrames);
  for (int f = 0; f < kFrames; ++f) {
    const float* x = signal.data() + static_cast<std::size_t>(f) * kHop;
    FrameOutputs& o = out[f];
    std::memcpy(o.phone, scalar::ExtractPhone(*m.phone, x, phone.get()), sizeof o.phone);
    SpectralFrontEnd(x, &pitch->front);
    scalar::PitchNetwork(*m.pitch, pitch.get());
    const PitchDecision decision = DecodePitch(pitch->scores);
    o.pitch_bin = decision.bin;
    const float features[] = {pitch->front.loudness, decision.p0, decision.lower_ratio, decision.upper_ratio};
    std::memcpy(o.pitch_features, features, sizeof features);
    const void* inputs[4] = {speaker, o.pitch_features, &o.pitch_bin, o.phone};
    std::memcpy(o.samples, scalar::GenerateWaveform(*m.waveform, inputs, waveform.get()), sizeof o.samples);
  }
  return out;
}

std::vector<FrameOutputs> InterfaceChain(const Models& m, const std::vector<float>& signal, const float* speaker) {
  auto* phone_model = reinterpret_cast<const CorvinaPhoneExtractor*>(m.phone.get());
  auto* pitch_model = reinterpret_cast<const CorvinaPitchEstimator*>(m.pitch.get());
  auto* waveform_model = reinterpret_cast<const CorvinaWaveformGenerator*>(m.waveform.get());
  CorvinaPhoneContext1* phone = Corvina_CreatePhoneContext1();
  CorvinaPitchContext1* pitch = Corvina_CreatePitchContext1();
  CorvinaWaveformContext1* waveform = Corvina_CreateWaveformContext1();
  std::vector<FrameOutputs> out(kFrames);
  for (int f = 0; f < kFrames; ++f) {
    const float* x = signal.data() + static_cast<std::size_t>(f) * kHop;
    FrameOutputs& o = out[f];
    Corvina_ExtractPhone1(phone_model, x, o.phone, phone);
    Corvina_EstimatePitch1(pitch_model, x, &o.pitch_bin, o.pitch_features, pitch);
    Corvina_GenerateWaveform1(waveform_model, o.phone, &o.pitch_bin, o.pitch_features, speaker, o.samples,
                              waveform);
  }
  Corvina_DestroyWaveformContext1(waveform);
  Corvina_DestroyPitchContext1(pitch);
  Corvina_DestroyPhoneContext1(phone);
  return out;
}

// The first frame where any output differs, or -1.
int FirstDifference(const std::vector<FrameOutputs>& a, const std::vector<FrameOutputs>& b, const char** what) {
  for (int f = 0; f < kFrames; ++f) {
    *what = !SameBits(a[f].phone, b[f].phone, sizeof a[f].phone)                     ? "phone features"
            : a[f].pitch_bin != b[f].pitch_bin                                       ? "pitch bin"
            : !SameBits(a[f].pitch_features, b[f].pitch_features, sizeof a[f].pitch_features) ? "pitch features"
            : !SameBits(a[f].samples, b[f].samples, sizeof a[f].samples)             ? "samples"
                                                                                      : nullptr;
    if (*what != nullptr) return f;
  }
  return -1;
}

}  // namespace

TEST(every_kernel_set_reproduces_the_scalar_chain_bit_for_bit) {
  Rng rng(check::Seed());
  Models models{RandomPhoneModel(rng), RandomPitchModel(rng), RandomModel(check::Seed() + 1)};
  const std::vector<float> signal = SpeechLikeSignal(rng);
  const std::vector<float> speaker = RandomFloats(kChannels, 0.5f, rng);
  const std::vector<FrameOutputs> expected = ScalarChain(models, signal, speaker.data());

  // A degenerate chain (silent or saturated everywhere) would prove little.
  double energy = 0.0;
  int moving_bins = 0;
  bool finite = true;
  for (const FrameOutputs& o : expected) {
    for (float v : o.samples) energy += static_cast<double>(v) * v, finite &= std::isfinite(v);
    for (float v : o.phone) finite &= std::isfinite(v);
    moving_bins += o.pitch_bin != expected[0].pitch_bin;
  }
  const double rms = std::sqrt(energy / (kFrames * kOutHop));
  CHECK_MSG(finite && rms > 1e-3 && rms < 1e3, "finite %d, output rms %g", finite, rms);
  CHECK_MSG(moving_bins > 0, "the pitch bin never moves");

  const KernelSet active = ActiveKernelSet();
  for (int i = 0; i < kKernelSets; ++i) {
    const auto set = static_cast<KernelSet>(i);
    if (!KernelSetSupported(set)) {
      std::printf("kernel set %s: not supported here, skipped\n", KernelSetName(set));
      continue;
    }
    CHECK(SelectKernelSet(set) == set);
    const char* what = nullptr;
    const int frame = FirstDifference(expected, InterfaceChain(models, signal, speaker.data()), &what);
    CHECK_MSG(frame < 0, "kernel set %s: %s differ from frame %d", KernelSetName(set), what, frame);
    if (frame < 0) std::printf("kernel set %s: %d frames bit-identical\n", KernelSetName(set), kFrames);
  }
  SelectKernelSet(active);
}

TEST(kernel_sets_are_named_and_the_straightforward_set_is_always_there) {
  CHECK(std::strcmp(KernelSetName(KernelSet::kBasic), "basic") == 0);
  CHECK(std::strcmp(KernelSetName(KernelSet::kAvx2), "avx2") == 0);
  CHECK(std::strcmp(KernelSetName(KernelSet::kAvx512), "avx512") == 0);
  CHECK(KernelSetSupported(KernelSet::kBasic) && KernelSetSupported(KernelSet::kAvx2));
  // Without CORVINA_ISA the fastest supported set is active.
  if (std::getenv("CORVINA_ISA") == nullptr)
    CHECK(ActiveKernelSet() == (KernelSetSupported(KernelSet::kAvx512) ? KernelSet::kAvx512 : KernelSet::kAvx2));
}

CHECK_MAIN
