#pragma once
// Known signals for the sandbox tests: a sine played into a sandbox sink with pacat, and
// the measures that tell whether it arrived (level, frequency, no gaps); running commands
// against the sandbox server.

#include <atomic>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <numbers>
#include <string>
#include <vector>

namespace velto::testing {

// Runs a shell command; returns its output without the trailing newline.
inline std::string run(const std::string& command) {
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return output;
    char buffer[256];
    while (std::fgets(buffer, sizeof buffer, pipe) != nullptr) output += buffer;
    pclose(pipe);
    while (!output.empty() && (output.back() == '\n' || output.back() == ' ')) output.pop_back();
    return output;
}

#ifdef VELTO_SANDBOX_SCRIPT
// The sandbox script, pointed at the server these tests talk to.
inline std::string sandbox(const std::string& action) {
    const char* server = std::getenv("PULSE_SERVER");
    std::string directory = server != nullptr ? server : "";
    if (directory.rfind("unix:", 0) == 0) directory = directory.substr(5);
    directory = directory.substr(0, directory.rfind('/'));
    return run("VELTO_SANDBOX_DIR=" + directory + " " VELTO_SANDBOX_SCRIPT " " + action);
}
#endif

// Plays `seconds` of `sample(t)` into `device` (a sink name) with pacat, 32-bit float,
// every channel alike; blocks until pacat has played it, or until `stop` is set (what
// pacat holds then still plays out). A generous playback latency keeps a loaded machine
// from starving pacat, whose underruns would put gaps into the very signal the tests
// check for gaps (a recorder beside it, parec, hears them at 20 ms and none at 200 ms).
template <class Sample>
bool playInto(const std::string& device, std::uint32_t channels, double seconds, Sample sample,
              const std::atomic<bool>* stop = nullptr, std::uint32_t rateHertz = 48000) {
    const std::string command = "pacat --playback --raw --device=" + device +
                                " --format=float32le --rate=" + std::to_string(rateHertz) +
                                " --channels=" + std::to_string(channels) + " --latency-msec=200";
    // A player that dies fails the test with pacat's own message instead of ending the
    // test process with SIGPIPE on the next write.
    std::signal(SIGPIPE, SIG_IGN);
    FILE* pipe = popen(command.c_str(), "w");
    if (pipe == nullptr) return false;
    const auto frames = static_cast<std::size_t>(seconds * rateHertz);
    std::vector<float> block;
    for (std::size_t f = 0; f < frames && !(stop && *stop); ++f) {
        const float value = sample(static_cast<double>(f) / rateHertz);
        for (std::uint32_t c = 0; c < channels; ++c) block.push_back(value);
        if (block.size() >= 4800) {
            if (std::fwrite(block.data(), sizeof(float), block.size(), pipe) != block.size()) break;
            block.clear();
        }
    }
    std::fwrite(block.data(), sizeof(float), block.size(), pipe);
    return pclose(pipe) == 0;
}

inline auto sine(double frequencyHertz, float amplitude) {
    return [=](double t) { return amplitude * static_cast<float>(std::sin(2.0 * std::numbers::pi * frequencyHertz * t)); };
}

inline bool playSine(const std::string& device, double frequencyHertz, float amplitude, double seconds,
                     std::uint32_t channels = 2) {
    return playInto(device, channels, seconds, sine(frequencyHertz, amplitude));
}

struct ToneMeasure {
    std::size_t soundingFrames = 0;  // from the first to the last frame above the threshold
    double rms = 0.0;                // over the middle half of the sounding part
    double frequencyHertz = 0.0;     // from positive-going zero crossings over the same span
    double weakestWindowPeak = 0.0;  // smallest peak of any 10 ms window there: near 0 means a gap
};

inline std::string describe(const ToneMeasure& m) {
    char text[160];
    std::snprintf(text, sizeof text, "sounding %zu frames, rms %.4f, %.2f Hz, weakest 10 ms peak %.4f", m.soundingFrames,
                  m.rms, m.frequencyHertz, m.weakestWindowPeak);
    return text;
}

inline ToneMeasure measureTone(const std::vector<float>& samples, double rateHertz, float threshold = 0.02f) {
    ToneMeasure measure;
    std::size_t first = samples.size();
    std::size_t last = 0;
    for (std::size_t i = 0; i < samples.size(); ++i) {
        if (std::fabs(samples[i]) > threshold) {
            first = std::min(first, i);
            last = i;
        }
    }
    if (first >= last) return measure;
    measure.soundingFrames = last - first + 1;
    const std::size_t begin = first + measure.soundingFrames / 4;
    const std::size_t end = last - measure.soundingFrames / 4;
    double sum = 0.0;
    int crossings = 0;
    for (std::size_t i = begin; i < end; ++i) {
        sum += static_cast<double>(samples[i]) * samples[i];
        if (i > begin && samples[i - 1] < 0.0f && samples[i] >= 0.0f) ++crossings;
    }
    measure.rms = std::sqrt(sum / static_cast<double>(end - begin));
    measure.frequencyHertz = crossings * rateHertz / static_cast<double>(end - begin);
    const auto window = static_cast<std::size_t>(rateHertz / 100);
    measure.weakestWindowPeak = 1.0;
    for (std::size_t start = begin; start + window <= end; start += window) {
        double peak = 0.0;
        for (std::size_t i = start; i < start + window; ++i) peak = std::max(peak, std::fabs(double{samples[i]}));
        measure.weakestWindowPeak = std::min(measure.weakestWindowPeak, peak);
    }
    return measure;
}

}  // namespace velto::testing
