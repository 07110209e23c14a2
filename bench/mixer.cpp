// Cost of one simulated second of dual-source mixing (48 kHz stereo system
// audio + 16 kHz mono microphone, mixed at 48 kHz, written to a 16 kHz FLAC
// file), driven by a manual clock. Counter "x_realtime": seconds of recording
// mixed per second of one core (target: at least 200); "cpu_ms_per_s": CPU
// milliseconds per recorded second. The first argument steers both sources onto
// the clock (drift correction: a fine resampler per source, at 48 kHz the dearest
// case); the second cancels the echo; the third mixes at 16 kHz (as echo
// cancellation does); the fourth puts an echo of the system audio into the microphone
// (50 ms late, 6 dB down), so that the echo filter runs the whole second rather than
// giving up on an echo that is not there. The differences between the runs are what
// each costs.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <numbers>
#include <vector>

#include "signal/AudioMixer.hpp"
#include "veltoaudio/Logging.hpp"
#include "ThreadCpuTime.hpp"

namespace {

// A tone of the other source heard late and quieter, as a loudspeaker's echo.
struct ToneEcho {
    double toneHertz = 0;
    double delaySeconds = 0;
    double amplitude = 0;
};

class PacedSource {
public:
    PacedSource(double rate, int64_t channels, double toneHertz, double amplitude = 0.3, ToneEcho echo = {})
        : rate_(rate), tone_(toneHertz), amplitude_(amplitude), echo_(echo), ring_(velto::FloatRingBuffer::create(channels, 96000)),
          samples_(static_cast<size_t>(rate / 30)), pointers_(static_cast<size_t>(channels), samples_.data()) {}
    void produceUntil(int64_t ticks) {
        const auto due = static_cast<int64_t>(std::floor(static_cast<double>(ticks) * rate_ / 60.0));
        const int64_t frames = due - produced_;
        for (int64_t i = 0; i < frames; ++i) {
            const double seconds = static_cast<double>(produced_ + i) / rate_;
            samples_[static_cast<size_t>(i)] = static_cast<float>(
                amplitude_ * std::sin(2 * std::numbers::pi * tone_ * seconds) +
                echo_.amplitude * std::sin(2 * std::numbers::pi * echo_.toneHertz * (seconds - echo_.delaySeconds)));
        }
        produced_ += ring_->write(pointers_, frames);
    }
    const std::shared_ptr<velto::FloatRingBuffer>& ring() const { return ring_; }

private:
    double rate_, tone_, amplitude_;
    ToneEcho echo_;
    std::shared_ptr<velto::FloatRingBuffer> ring_;
    std::vector<float> samples_;
    std::vector<const float*> pointers_;
    int64_t produced_ = 0;
};

void BM_MixOneSecondDualSourceToFlac(benchmark::State& state) {
    velto::setMinimumLogLevel(velto::LogLevel::error);
    const auto path = std::filesystem::temp_directory_path() / ("velto-bench-mixer-" + std::to_string(::getpid()) + ".flac");
    auto file = velto::AudioFile::openForWriting(path, velto::makeAudioSettings(velto::AudioFormat::flac));
    auto clock = std::make_shared<velto::ManualClock>();
    auto mixer = velto::AudioMixer::create(1024, 3072, clock, velto::MixingTicks::caller);
    PacedSource system(48000, 2, 440.0);
    const bool echoPath = state.range(3) != 0;
    PacedSource microphone(16000, 1, 660.0, echoPath ? 0.03 : 0.3,
                           echoPath ? ToneEcho{440.0, 0.05, 0.15} : ToneEcho{});
    mixer->setSystemGain(0.3f);
    mixer->setMicrophoneGain(0.3f);
    velto::MixerInputs inputs;
    inputs.system = velto::MixerSourceInput{system.ring(), 48000, 2, {}};
    inputs.microphone = velto::MixerSourceInput{microphone.ring(), 16000, 1, {}};
    inputs.outputFile = file;
    inputs.outputFormat = file->processingFormat();
    inputs.driftCorrection = state.range(0) != 0;
    inputs.echoCancellation = state.range(1) != 0;
    if (state.range(2) != 0) inputs.mixingSampleRateHertz = 16000;
    mixer->start(inputs);

    int64_t tick = 0;
    auto runTicks = [&](int64_t count) {
        for (int64_t i = 0; i < count; ++i) {
            ++tick;
            system.produceUntil(tick);
            microphone.produceUntil(tick);
            clock->advance(1.0 / 60.0);
            mixer->tick();
        }
    };
    runTicks(60);  // past the jitter wait and the resamplers' start-up

    double seconds = 0;
    for (auto _ : state) {
        const auto start = threadCpuSeconds();
        runTicks(60);
        seconds += threadCpuSeconds() - start;
    }
    state.counters["x_realtime"] = benchmark::Counter(static_cast<double>(state.iterations()) / seconds);
    state.counters["cpu_ms_per_s"] = benchmark::Counter(1000.0 * seconds / static_cast<double>(state.iterations()));
    mixer->stopMixing();
    file->close();
    std::filesystem::remove(path);
}
BENCHMARK(BM_MixOneSecondDualSourceToFlac)
    ->ArgNames({"drift", "echo", "mix16k", "echoPath"})
    ->Args({0, 0, 0, 0})
    ->Args({1, 0, 0, 0})
    ->Args({0, 0, 1, 0})
    ->Args({1, 0, 1, 0})
    ->Args({0, 1, 1, 0})
    ->Args({1, 1, 1, 0})
    ->Args({0, 0, 1, 1})
    ->Args({0, 1, 1, 1})
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
