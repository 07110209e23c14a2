#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <optional>
#include <string>
#include <vector>

#include "MixerTestRig.hpp"
#include "SignalQuality.hpp"

// Long and signal-level runs of the mixer, driven by a manual clock: capture
// sources deliver bursts when their rate has made them and the test ticks the mixer.
namespace velto {
namespace {

using testing::drainStream;
using testing::fitSine;
using testing::MixerRig;
using testing::runSources;
using testing::SimulatedSource;

struct SinePathCase {
    const char* name;
    double systemHertz;        // 0: no system source
    double microphoneHertz;    // 0: no microphone source
    bool sineOnSystem;         // otherwise on the microphone
};

// Runs a recording into a 16 kHz WAV file for `seconds` and returns what the
// audio stream delivered, the stop's tail included; the file must hold exactly
// the same frames, and at least as many as the sources produced (nothing of
// theirs is left in a ring or a resampler).
std::vector<float> recordThroughMixer(const SinePathCase& c, double seconds, double sineHertz, float systemGain,
                                      float microphoneGain, int64_t* paddedFrames = nullptr,
                                      size_t* framesBeforeStop = nullptr) {
    MixerRig rig(1024, 3072);
    testing::TemporaryDirectory folder;
    auto file = AudioFile::openForWriting(folder.path() / "mix.wav", makeAudioSettings(AudioFormat::wav));
    auto stream = rig.mixer->audioStream();
    rig.mixer->setSystemGain(systemGain);
    rig.mixer->setMicrophoneGain(microphoneGain);
    // The system audio in 10 ms bursts, the microphone in 1024-frame ones.
    std::optional<SimulatedSource> system, microphone;
    std::vector<SimulatedSource*> sources;
    if (c.systemHertz > 0) {
        sources.push_back(&system.emplace(c.systemHertz, 0, 2, static_cast<int64_t>(c.systemHertz / 100),
                                          c.sineOnSystem ? sineHertz : 0));
    }
    if (c.microphoneHertz > 0) {
        sources.push_back(&microphone.emplace(c.microphoneHertz, 0, 1, 1024, c.sineOnSystem ? 0 : sineHertz));
    }
    if (system && microphone) {
        rig.mixer->start(testing::dualInputs(system->ring, c.systemHertz, 2, microphone->ring, c.microphoneHertz, file,
                                         file->processingFormat()));
    } else {
        rig.mixer->start(testing::singleInputs(system ? system->ring : nullptr, microphone ? microphone->ring : nullptr,
                               system ? c.systemHertz : c.microphoneHertz, system ? 2 : 1, file, file->processingFormat()));
    }
    std::vector<float> output;
    runSources(rig, sources, rig.clock->nowSeconds(), seconds, [&] {
        const auto delivered = drainStream(stream);
        output.insert(output.end(), delivered.begin(), delivered.end());
    });
    if (paddedFrames) *paddedFrames = rig.mixer->paddedSilenceFrames();
    EXPECT_EQ(rig.mixer->underrunCount(), 0);
    if (framesBeforeStop) *framesBeforeStop = output.size();
    rig.mixer->stopMixing();
    const auto tail = drainStream(stream);
    output.insert(output.end(), tail.begin(), tail.end());
    file->close();
    EXPECT_EQ(file->framesWritten(), static_cast<int64_t>(output.size()));
    for (const auto* source : sources) {
        const double producedSeconds = static_cast<double>(source->produced) / source->rate;
        EXPECT_GE(static_cast<double>(output.size()), std::floor(producedSeconds * 16000.0));
    }
    return output;
}

class SinePathThroughMixer : public ::testing::TestWithParam<SinePathCase> {};

// A 1 kHz sine through each source path, the mix and the output conversion
// to the 16 kHz file: clean (SINAD ≥ 90 dB) and without a single
// discontinuity once the start-up has passed.
TEST_P(SinePathThroughMixer, IsCleanAndContinuous) {
    const auto& c = GetParam();
    int64_t paddedFrames = -1;
    size_t beforeStop = 0;
    const auto output = recordThroughMixer(c, 4.0, 1000, c.sineOnSystem ? 1.0f : 0.0f, c.sineOnSystem ? 0.0f : 1.0f,
                                           &paddedFrames, &beforeStop);
    EXPECT_EQ(paddedFrames, 0);
    const size_t skip = 8000;  // start-up: the jitter wait, the priming silence and the filters' onset
    ASSERT_GT(beforeStop, skip + 32000);
    const auto fit = fitSine(output, skip, beforeStop - skip, 1000, 16000);
    EXPECT_GE(fit.sinadDecibels, 90.0);
    EXPECT_NEAR(fit.amplitude, SimulatedSource::kAmplitude, 0.001);
    EXPECT_LT(fit.worstResidual, 1e-4) << "discontinuity near output frame " << fit.worstResidualIndex;
    // The stop's tail carries on the same sine without a seam. (Its very end may
    // differ: the filters' edge, and a source whose last block had not arrived.)
    ASSERT_GT(output.size(), beforeStop + 1000);
    const size_t tailCheck = (output.size() - beforeStop) / 2;
    const auto acrossStop = fitSine(output, beforeStop - 2000, 2000 + tailCheck, 1000, 16000);
    EXPECT_NEAR(acrossStop.amplitude, SimulatedSource::kAmplitude, 0.001);
    EXPECT_LT(acrossStop.worstResidual, 1e-4) << "discontinuity near output frame " << acrossStop.worstResidualIndex;
    std::printf("  SINAD through the mixer, %s: %.1f dB\n", c.name, fit.sinadDecibels);
    RecordProperty("sinad_db", std::to_string(fit.sinadDecibels));
}

INSTANTIATE_TEST_SUITE_P(
    Paths, SinePathThroughMixer,
    ::testing::Values(SinePathCase{"microphone16k_via48k", 48000, 16000, false},
                      SinePathCase{"system44k1stereo_via48k", 44100, 48000, true},
                      SinePathCase{"systemOnly48kstereo", 48000, 0, true},
                      SinePathCase{"microphoneOnly16k", 0, 16000, false}),
    [](const ::testing::TestParamInfo<SinePathCase>& info) { return std::string(info.param.name); });

// The same slow sine on both sources, at different rates, comes out of the
// mix at the same moment: the resampled source's priming delays the other
// source by as much.
TEST(MixerAlignment, SourcesAtDifferentRatesStayInStep) {
    // 48000 + 16000: only the microphone is resampled; 44100 + 16000: both are.
    for (const double systemHertz : {48000.0, 44100.0}) {
        SCOPED_TRACE(systemHertz);
        const auto systemOnly = recordThroughMixer({"", systemHertz, 16000, true}, 4.0, 10, 1.0f, 0.0f);
        const auto microphoneOnly = recordThroughMixer({"", systemHertz, 16000, false}, 4.0, 10, 0.0f, 1.0f);
        ASSERT_EQ(systemOnly.size(), microphoneOnly.size());
        const size_t skip = 16000;
        const auto systemFit = fitSine(systemOnly, skip, systemOnly.size() - skip, 10, 16000);
        const auto microphoneFit = fitSine(microphoneOnly, skip, microphoneOnly.size() - skip, 10, 16000);
        const double phaseDifference =
            std::remainder(systemFit.phaseRadians - microphoneFit.phaseRadians, 2 * std::numbers::pi);
        const double offsetMilliseconds = phaseDifference / (2 * std::numbers::pi * 10) * 1000.0;
        EXPECT_LT(std::abs(offsetMilliseconds), 0.1);
        std::printf("  offset between sources in the mix (system %.0f Hz): %.4f ms\n", systemHertz,
                    offsetMilliseconds);
    }
}

}  // namespace
}  // namespace velto
