// Reads a two-channel recording of the marked test signal (scripts/paced-source.c: a
// 440 Hz tone with a 4 kHz burst centred on every whole second of real time) and says
// how the two channels' marks line up:
//   marks N N            marks found on each channel
//   offset_move_ms X     how far the offset between the channels moved after SETTLE s
//   spacing_move_ms X X  how far each channel's marks moved against a steady 1 s grid
//   length_s X           the file's length
//   dropouts N N         10 ms stretches where a channel's tone fell silent mid-file
//   tail_ms X            how much longer one channel sounds than the other at the end
// With --trace it also prints, for every mark after SETTLE s, `grid CHANNEL SECOND MS`: where
// the mark lies against the channel's 1 s grid (the time series behind spacing_move_ms).
// Usage: velto_measure_marks FILE [SETTLE_SECONDS [--trace]]
#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numbers>
#include <optional>
#include <string_view>
#include <vector>

namespace {

constexpr double kPi = std::numbers::pi;

// The burst as the writer makes it (4 kHz, or 2 kHz in its second voice), at `rate`,
// centred at index `half`.
std::vector<double> burstTemplate(double rate, double hertz, int& half) {
    half = static_cast<int>(std::ceil(0.005 * rate));
    std::vector<double> shape(static_cast<size_t>(2 * half + 1));
    for (int i = -half; i <= half; ++i) {
        const double t = i / rate;
        if (std::abs(t) >= 0.005) continue;
        shape[static_cast<size_t>(i + half)] = 0.4 * (0.5 + 0.5 * std::cos(2 * kPi * t / 0.01)) * std::sin(2 * kPi * hertz * t);
    }
    return shape;
}

// Mark centres (in frames, to a fraction of a frame) on one channel.
std::vector<double> findMarks(const std::vector<float>& x, double rate, double hertz) {
    int half = 0;
    const auto shape = burstTemplate(rate, hertz, half);
    const auto correlate = [&](long centre) {
        double sum = 0;
        for (int i = -half; i <= half; ++i) {
            const long n = centre + i;
            if (n >= 0 && n < static_cast<long>(x.size())) sum += x[static_cast<size_t>(n)] * shape[static_cast<size_t>(i + half)];
        }
        return sum;
    };
    double energy = 0;
    for (const double v : shape) energy += v * v;
    std::vector<double> marks;
    // Marks are a second apart: each search spans one second from halfway to the next.
    const long step = static_cast<long>(rate * 0.5);
    long n = half;
    while (n < static_cast<long>(x.size()) - half) {
        // The best match in the next second.
        long best = -1;
        double bestValue = 0;
        const long end = std::min<long>(static_cast<long>(x.size()) - half, n + static_cast<long>(rate));
        for (long c = n; c < end; ++c) {
            const double v = correlate(c);
            if (v > bestValue) {
                bestValue = v;
                best = c;
            }
        }
        if (best < 0 || bestValue < 0.5 * energy) {
            n = end;  // none here (silence before a source starts, or a lost mark): look further on
            continue;
        }
        const double before = correlate(best - 1), at = bestValue, after = correlate(best + 1);
        const double denominator = before - 2 * at + after;
        marks.push_back(static_cast<double>(best) + (denominator != 0 ? 0.5 * (before - after) / denominator : 0.0));
        n = best + step;
    }
    return marks;
}

double movement(const std::vector<double>& values) {
    if (values.empty()) return 0;
    const auto [low, high] = std::minmax_element(values.begin(), values.end());
    return *high - *low;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: velto_measure_marks FILE [SETTLE_SECONDS]\n");
        return 2;
    }
    const double settle = argc > 2 ? std::atof(argv[2]) : 10.0;
    const bool trace = argc > 3 && std::string_view(argv[3]) == "--trace";
    SF_INFO info{};
    SNDFILE* file = sf_open(argv[1], SFM_READ, &info);
    if (!file || info.channels != 2) {
        std::fprintf(stderr, "velto_measure_marks: %s is not a two-channel recording\n", argv[1]);
        return 1;
    }
    std::vector<float> interleaved(static_cast<size_t>(info.frames) * 2);
    sf_readf_float(file, interleaved.data(), info.frames);
    sf_close(file);
    const double rate = info.samplerate;
    std::vector<float> channels[2];
    for (int c = 0; c < 2; ++c) {
        channels[c].resize(static_cast<size_t>(info.frames));
        for (sf_count_t i = 0; i < info.frames; ++i) channels[c][static_cast<size_t>(i)] = interleaved[static_cast<size_t>(2 * i + c)];
    }

    // Each channel in whichever voice it carries.
    const auto marksOf = [&](const std::vector<float>& x) {
        auto first = findMarks(x, rate, 4000.0);
        auto second = findMarks(x, rate, 2000.0);
        return first.size() >= second.size() ? first : second;
    };
    std::vector<double> marks[2] = {marksOf(channels[0]), marksOf(channels[1])};
    std::printf("marks %zu %zu\n", marks[0].size(), marks[1].size());

    // Pair each microphone mark with the nearest system mark.
    std::vector<double> offsets;
    for (const double m : marks[0]) {
        if (m < settle * rate) continue;
        std::optional<double> nearest;
        for (const double s : marks[1]) {
            if (!nearest || std::abs(s - m) < std::abs(*nearest - m)) nearest = s;
        }
        if (nearest && std::abs(*nearest - m) < 0.5 * rate) offsets.push_back((m - *nearest) / rate * 1000.0);
    }
    std::printf("offset_move_ms %.3f\n", movement(offsets));

    // Against a steady grid: mark k after settling should sit k seconds after the first.
    double spacingMove[2] = {0, 0};
    for (int c = 0; c < 2; ++c) {
        std::vector<double> drift;
        std::optional<double> first;
        for (const double m : marks[c]) {
            if (m < settle * rate) continue;
            if (!first) first = m;
            const double seconds = (m - *first) / rate;
            drift.push_back((seconds - std::round(seconds)) * 1000.0);
            if (trace) std::printf("grid %d %.0f %.3f\n", c, m / rate, drift.back());
        }
        spacingMove[c] = movement(drift);
    }
    std::printf("spacing_move_ms %.3f %.3f\n", spacingMove[0], spacingMove[1]);
    std::printf("length_s %.4f\n", static_cast<double>(info.frames) / rate);

    // A dropout: a 10 ms stretch, between the first and last sound, where the tone is gone.
    const auto block = static_cast<size_t>(rate / 100);
    size_t lastSound[2] = {0, 0};
    int dropouts[2] = {0, 0};
    for (int c = 0; c < 2; ++c) {
        const auto& x = channels[c];
        size_t first = 0;
        while (first < x.size() && std::abs(x[first]) < 0.01f) ++first;
        size_t last = x.size();
        while (last > first && std::abs(x[last - 1]) < 0.01f) --last;
        lastSound[c] = last;
        for (size_t b = first + block; b + 2 * block < last; b += block) {
            double sum = 0;
            for (size_t i = b; i < b + block; ++i) sum += static_cast<double>(x[i]) * x[i];
            if (std::sqrt(sum / static_cast<double>(block)) < 0.03) ++dropouts[c];  // the tone alone is 0.071 RMS
        }
    }
    std::printf("dropouts %d %d\n", dropouts[0], dropouts[1]);
    std::printf("tail_ms %.1f\n", std::abs(static_cast<double>(lastSound[0]) - static_cast<double>(lastSound[1])) / rate * 1000.0);
    return 0;
}
