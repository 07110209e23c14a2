// AudioConverter throughput in times real time, beside libsoxr's own one-shot
// call on the same audio in the same run. Counters: "x_realtime" (ours),
// "oneshot_x_realtime" (soxr_oneshot), "vs_oneshot" (our time ÷ one-shot time).
#include <benchmark/benchmark.h>
#include <soxr.h>

#include <cmath>
#include <numbers>
#include <vector>

#include "signal/AudioConverter.hpp"
#include "ThreadCpuTime.hpp"

namespace {

constexpr uint32_t kBlockFrames = 1024;
constexpr double kSecondsPerIteration = 1.0;

std::vector<float> sine(double rate, uint32_t channels, double seconds) {
    const auto frames = static_cast<size_t>(rate * seconds);
    std::vector<float> samples(frames * channels);
    for (size_t i = 0; i < frames; ++i) {
        for (uint32_t c = 0; c < channels; ++c) {
            samples[i * channels + c] = static_cast<float>(0.5 * std::sin(2 * std::numbers::pi * 1000.0 * i / rate));
        }
    }
    return samples;
}

void runConverter(benchmark::State& state, double inputRate, uint32_t inputChannels, double outputRate) {
    const auto input = *velto::PcmFormat::make(inputRate, inputChannels, true);
    const auto output = *velto::PcmFormat::make(outputRate, 1, true);
    auto converter = velto::AudioConverter::create(input, output);
    const auto audio = sine(inputRate, inputChannels, kSecondsPerIteration);
    const size_t totalFrames = audio.size() / inputChannels;
    auto block = velto::PcmBuffer::make(input, kBlockFrames);

    const auto start = threadCpuSeconds();
    for (auto _ : state) {
        for (size_t offset = 0; offset < totalFrames; offset += kBlockFrames) {
            const auto frames = static_cast<uint32_t>(std::min<size_t>(kBlockFrames, totalFrames - offset));
            std::copy_n(audio.data() + offset * inputChannels, frames * inputChannels, block->floatChannelData()[0]);
            block->setFrameLength(frames);
            benchmark::DoNotOptimize(converter->convert(*block));
        }
    }
    const double ourSeconds = threadCpuSeconds() - start;

    // The reference: libsoxr resampling the same second in one call, at the
    // same quality, on the mono signal our converter resamples.
    const auto monoAudio = sine(inputRate, 1, kSecondsPerIteration);
    std::vector<float> resampled(static_cast<size_t>(outputRate * kSecondsPerIteration) + 16);
    const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
    const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_VHQ, 0);
    const soxr_runtime_spec_t runtime = soxr_runtime_spec(1);
    const auto oneshotStart = threadCpuSeconds();
    for (benchmark::IterationCount i = 0; i < state.iterations(); ++i) {
        size_t done = 0;
        soxr_oneshot(inputRate, outputRate, 1, monoAudio.data(), monoAudio.size(), nullptr, resampled.data(),
                     resampled.size(), &done, &io, &quality, &runtime);
        benchmark::DoNotOptimize(done);
    }
    const double oneshotSeconds = threadCpuSeconds() - oneshotStart;

    const double audioSeconds = kSecondsPerIteration * static_cast<double>(state.iterations());
    state.counters["x_realtime"] = benchmark::Counter(audioSeconds / ourSeconds);
    state.counters["oneshot_x_realtime"] = benchmark::Counter(audioSeconds / oneshotSeconds);
    state.counters["vs_oneshot"] = benchmark::Counter(ourSeconds / oneshotSeconds);
}

void BM_Convert48kMonoTo16kMono(benchmark::State& state) { runConverter(state, 48000, 1, 16000); }
void BM_Convert44k1StereoTo48kMono(benchmark::State& state) { runConverter(state, 44100, 2, 48000); }

BENCHMARK(BM_Convert48kMonoTo16kMono)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Convert44k1StereoTo48kMono)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
