// The whole chain on fixed random weights and speech-like input for 200
// frames, through the C interface on every supported kernel set, against the
// chain built from the scalar definitions, bit for bit: any changed rounding shows.
#include <algorithm>
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
#include "test_support.h"
#include "waveform/waveform_kernels.h"

using namespace test_support;

namespace {

constexpr int kFrames = 200;
constexpr int kHop = CORVINA_IN_HOP_LENGTH;

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
  const auto* Phone() const { return reinterpret_cast<const CorvinaPhoneExtractor*>(phone.get()); }
  const auto* Pitch() const { return reinterpret_cast<const CorvinaPitchEstimator*>(pitch.get()); }
  const auto* Waveform() const { return reinterpret_cast<const CorvinaWaveformGenerator*>(waveform.get()); }
};

// Streams with contexts of their own, run frame by frame through the one-stream calls.
struct StreamSet {
  std::vector<CorvinaPhoneContext1*> phone;
  std::vector<CorvinaPitchContext1*> pitch;
  std::vector<CorvinaWaveformContext1*> waveform;
  explicit StreamSet(int n) {
    for (int s = 0; s < n; ++s) {
      phone.push_back(Corvina_CreatePhoneContext1());
      pitch.push_back(Corvina_CreatePitchContext1());
      waveform.push_back(Corvina_CreateWaveformContext1());
    }
  }
  ~StreamSet() {
    for (std::size_t s = 0; s < phone.size(); ++s) {
      Corvina_DestroyPhoneContext1(phone[s]);
      Corvina_DestroyPitchContext1(pitch[s]);
      Corvina_DestroyWaveformContext1(waveform[s]);
    }
  }
  void Frame(const Models& m, int s, const float* x, const float* speaker, FrameOutputs& o) {
    Corvina_ExtractPhone1(m.Phone(), x, o.phone, phone[s]);
    Corvina_EstimatePitch1(m.Pitch(), x, &o.pitch_bin, o.pitch_features, pitch[s]);
    Corvina_GenerateWaveform1(m.Waveform(), o.phone, &o.pitch_bin, o.pitch_features, speaker, o.samples, waveform[s]);
  }
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
  StreamSet stream(1);
  std::vector<FrameOutputs> out(kFrames);
  for (int f = 0; f < kFrames; ++f) stream.Frame(m, 0, signal.data() + static_cast<std::size_t>(f) * kHop, speaker, out[f]);
  return out;
}

// The first frame where any output differs, or -1.
int FirstDifference(const std::vector<FrameOutputs>& a, const std::vector<FrameOutputs>& b, const char** what) {
  for (int f = 0; f < static_cast<int>(a.size()); ++f) {
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
  Models models{RandomPhoneModel(check::Seed()), RandomPitchModel(check::Seed() + 1),
                RandomWaveformModel(check::Seed() + 2)};
  const std::vector<float> signal = SpeechLikeSignal(kFrames, check::Seed() + 3);
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

  // Without CORVINA_ISA (which takes these names) the fastest supported set is active.
  CHECK(std::strcmp(KernelSetName(KernelSet::kAvx2), "avx2") == 0);
  CHECK(std::strcmp(KernelSetName(KernelSet::kAvx512), "avx512") == 0);
  const KernelSet active = ActiveKernelSet();
  if (std::getenv("CORVINA_ISA") == nullptr)
    CHECK(active == (KernelSetSupported(KernelSet::kAvx512) ? KernelSet::kAvx512 : KernelSet::kAvx2));
  for (int i = 0; i < kKernelSets; ++i) {
    const auto set = static_cast<KernelSet>(i);
    if (!KernelSetSupported(set)) {
      std::printf("kernel set %s: not supported here, skipped\n", KernelSetName(set));
      continue;
    }
    CHECK(SelectKernelSet(set) == set && std::strcmp(ActiveKernels().name, KernelSetName(set)) == 0);
    const char* what = nullptr;
    const int frame = FirstDifference(expected, InterfaceChain(models, signal, speaker.data()), &what);
    CHECK_MSG(frame < 0, "kernel set %s: %s differ from frame %d", KernelSetName(set), what, frame);
    if (frame < 0) std::printf("kernel set %s: %d frames bit-identical\n", KernelSetName(set), kFrames);
  }
  SelectKernelSet(active);
}

// Streams that each run the chain through the one-stream calls, against the
// same streams run through the batched calls, a frame of all present streams
// per call: every batch size from 1 to more than one internal group of
// kMaxBatch, streams joining and leaving, the order changing every frame.
constexpr int kStreams = 19;
constexpr int kBatchFrames = 40;

// Frame f runs 1 + f % kStreams streams, a window that moves on by 5 each frame.
bool Present(int stream, int frame) { return (stream - 5 * frame + 5 * kStreams * kBatchFrames) % kStreams <= frame % kStreams; }

TEST(batched_calls_give_every_stream_its_one_stream_outputs_on_every_kernel_set) {
  Rng rng(check::Seed() + 7);
  Models models{RandomPhoneModel(check::Seed() + 7), RandomPitchModel(check::Seed() + 8),
                RandomWaveformModel(check::Seed() + 9)};
  const auto* phone_model = models.Phone();
  const auto* pitch_model = models.Pitch();
  const auto* waveform_model = models.Waveform();
  const std::vector<float> signal = SpeechLikeSignal(kFrames, check::Seed() + 10);
  const std::vector<float> speakers = RandomFloats(kStreams * kChannels, 0.5f, rng);
  // Stream s hears the signal from its own starting frame, at its own level.
  const auto input = [&](std::vector<float>& x, int s, int f) {
    const float* from = signal.data() + static_cast<std::size_t>((f + 11 * s) % kFrames) * kHop;
    for (int i = 0; i < kHop; ++i) x[i] = from[i] * (0.5f + 0.05f * static_cast<float>(s));
  };

  const KernelSet active = ActiveKernelSet();
  for (int i = 0; i < kKernelSets; ++i) {
    const auto set = static_cast<KernelSet>(i);
    if (!KernelSetSupported(set)) continue;
    SelectKernelSet(set);
    StreamSet single(kStreams), batched(kStreams);
    std::vector<std::vector<float>> x(kStreams, std::vector<float>(kHop));
    std::vector<FrameOutputs> one(kStreams), many(kStreams);
    int compared = 0, first_bad = -1;
    for (int f = 0; f < kBatchFrames && first_bad < 0; ++f) {
      std::vector<int> members;
      for (int s = 0; s < kStreams; ++s)
        if (Present(s, f)) members.push_back(s);
      CHECK(static_cast<int>(members.size()) == 1 + f % kStreams);
      if (f % 2 == 1) std::reverse(members.begin(), members.end());
      const int n = static_cast<int>(members.size());
      // Outputs of the first two models are the next one's inputs, as float** to const float* const*.
      std::vector<const float*> in(n), speaker_in(n);
      std::vector<float*> phone_out(n), features_out(n), samples_out(n);
      std::vector<std::int32_t*> bin_out(n);
      std::vector<CorvinaPhoneContext1*> pc(n);
      std::vector<CorvinaPitchContext1*> tc(n);
      std::vector<CorvinaWaveformContext1*> wc(n);
      for (int k = 0; k < n; ++k) {
        const int s = members[k];
        input(x[s], s, f);
        const float* speaker = speakers.data() + s * kChannels;
        single.Frame(models, s, x[s].data(), speaker, one[s]);
        in[k] = x[s].data();
        phone_out[k] = many[s].phone;
        bin_out[k] = &many[s].pitch_bin;
        features_out[k] = many[s].pitch_features;
        speaker_in[k] = speaker;
        samples_out[k] = many[s].samples;
        pc[k] = batched.phone[s];
        tc[k] = batched.pitch[s];
        wc[k] = batched.waveform[s];
      }
      Corvina_ExtractPhoneN(phone_model, n, in.data(), phone_out.data(), pc.data());
      Corvina_EstimatePitchN(pitch_model, n, in.data(), bin_out.data(), features_out.data(), tc.data());
      Corvina_GenerateWaveformN(waveform_model, n, phone_out.data(), bin_out.data(), features_out.data(),
                                speaker_in.data(), samples_out.data(), wc.data());
      for (int s : members) {
        const char* what = nullptr;
        if (FirstDifference({one[s]}, {many[s]}, &what) >= 0) {
          first_bad = f;
          CHECK_MSG(false, "kernel set %s: stream %d, frame %d: %s differ", KernelSetName(set), s, f, what);
          break;
        }
        ++compared;
      }
    }
    if (first_bad < 0) std::printf("kernel set %s: %d stream frames of batches bit-identical\n", KernelSetName(set), compared);
  }
  // An empty batch touches nothing.
  Corvina_ExtractPhoneN(phone_model, 0, nullptr, nullptr, nullptr);
  Corvina_EstimatePitchN(pitch_model, 0, nullptr, nullptr, nullptr, nullptr);
  Corvina_GenerateWaveformN(waveform_model, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
  SelectKernelSet(active);
}

CHECK_MAIN
