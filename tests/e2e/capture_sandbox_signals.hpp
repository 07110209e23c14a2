#pragma once
// Known signals for the sandbox tests: a sine played into a sandbox sink with pacat;
// running commands against the sandbox server.

#include <atomic>
#include <cmath>
#include <csignal>
#include <cstdio>
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

}  // namespace velto::testing
