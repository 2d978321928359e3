// A group of streams that one thread runs frame by frame through the whole
// chain: batched (one ...N call per model over the group) or one ...1 call
// per stream and model.
#pragma once
#include <cstdint>
#include <vector>

#include "bench/bench_common.h"
#include "engine/corvina.h"

namespace corvina::bench {

enum class Mode { kBatch, kSingle };
inline const char* ModeName(Mode mode) { return mode == Mode::kBatch ? "batch" : "single"; }

// One thread's streams: their contexts, the buffers between the models and
// the pointer arrays the ...N calls take, all made before the clock starts.
class Group {
 public:
  Group(const Models& models, const std::vector<float>& signal, const float* speaker, int first, int count)
      : models_(models),
        signal_(signal.data()),
        signal_frames_(static_cast<int>(signal.size() / CORVINA_IN_HOP_LENGTH)),
        count_(count),
        features_(static_cast<std::size_t>(count) * CORVINA_PHONE_CHANNELS),
        pitch_features_(static_cast<std::size_t>(count) * CORVINA_PITCH_FEATURES),
        output_(static_cast<std::size_t>(count) * CORVINA_OUT_HOP_LENGTH),
        bins_(count),
        inputs_(count),
        speakers_(count, speaker) {
    for (int i = 0; i < count; ++i) {
      offsets_.push_back((first + i) * 37 % signal_frames_);  // the streams say different things
      phone_.push_back(Corvina_CreatePhoneContext1());
      pitch_.push_back(Corvina_CreatePitchContext1());
      waveform_.push_back(Corvina_CreateWaveformContext1());
      features_out_.push_back(features_.data() + i * CORVINA_PHONE_CHANNELS);
      pitch_features_out_.push_back(pitch_features_.data() + i * CORVINA_PITCH_FEATURES);
      output_out_.push_back(output_.data() + i * CORVINA_OUT_HOP_LENGTH);
      bins_out_.push_back(bins_.data() + i);
    }
    features_in_.assign(features_out_.begin(), features_out_.end());
    pitch_features_in_.assign(pitch_features_out_.begin(), pitch_features_out_.end());
    bins_in_.assign(bins_out_.begin(), bins_out_.end());
  }
  Group(const Group&) = delete;
  Group& operator=(const Group&) = delete;
  ~Group() {
    for (int i = 0; i < count_; ++i) {
      Corvina_DestroyWaveformContext1(waveform_[i]);
      Corvina_DestroyPitchContext1(pitch_[i]);
      Corvina_DestroyPhoneContext1(phone_[i]);
    }
  }

  int count() const { return count_; }

  // Frame `tick` of every stream through the whole chain; in batch mode
  // `marks`, if given, receives the clock before and after each model's call.
  void Frame(Mode mode, int tick, Clock::time_point* marks = nullptr) {
    for (int i = 0; i < count_; ++i)
      inputs_[i] = signal_ + static_cast<std::size_t>((offsets_[i] + tick) % signal_frames_) * CORVINA_IN_HOP_LENGTH;
    if (mode == Mode::kBatch) {
      Clock::time_point unused[4];
      if (marks == nullptr) marks = unused;
      marks[0] = Clock::now();
      Corvina_ExtractPhoneN(models_.phone, count_, inputs_.data(), features_out_.data(), phone_.data());
      marks[1] = Clock::now();
      Corvina_EstimatePitchN(models_.pitch, count_, inputs_.data(), bins_out_.data(), pitch_features_out_.data(),
                             pitch_.data());
      marks[2] = Clock::now();
      Corvina_GenerateWaveformN(models_.waveform, count_, features_in_.data(), bins_in_.data(),
                                pitch_features_in_.data(), speakers_.data(), output_out_.data(), waveform_.data());
      marks[3] = Clock::now();
      return;
    }
    for (int i = 0; i < count_; ++i) {
      Corvina_ExtractPhone1(models_.phone, inputs_[i], features_out_[i], phone_[i]);
      Corvina_EstimatePitch1(models_.pitch, inputs_[i], bins_out_[i], pitch_features_out_[i], pitch_[i]);
      Corvina_GenerateWaveform1(models_.waveform, features_in_[i], bins_in_[i], pitch_features_in_[i], speakers_[i],
                                output_out_[i], waveform_[i]);
    }
  }

 private:
  const Models& models_;
  const float* signal_;
  int signal_frames_;
  int count_;
  std::vector<float> features_, pitch_features_, output_;
  std::vector<std::int32_t> bins_;
  std::vector<int> offsets_;
  std::vector<CorvinaPhoneContext1*> phone_;
  std::vector<CorvinaPitchContext1*> pitch_;
  std::vector<CorvinaWaveformContext1*> waveform_;
  std::vector<const float*> inputs_;
  std::vector<const float*> speakers_;
  std::vector<float*> features_out_, pitch_features_out_, output_out_;
  std::vector<std::int32_t*> bins_out_;
  std::vector<const float*> features_in_, pitch_features_in_;
  std::vector<const std::int32_t*> bins_in_;
};

}  // namespace corvina::bench
