#include "signal/VariableRatioResampler.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>

namespace velto {

namespace {

// Kaiser window shape: sidelobes near −90 dB for 16 taps, which keeps a 1 kHz
// tone's distortion well below −90 dB at every fractional position.
constexpr double kKaiserBeta = 9.0;

double besselI0(double x) {
    double sum = 1.0;
    double term = 1.0;
    for (int k = 1; k < 40; ++k) {
        term *= (x / (2.0 * k)) * (x / (2.0 * k));
        sum += term;
        if (term < sum * 1e-17) break;
    }
    return sum;
}

// The kernel at fractional delay `fraction` (0 ≤ fraction ≤ 1): tap k weighs
// input frame floor(position) + k, which lies k − kDelayFrames − fraction frames
// from the position. Full-band sinc, so that fraction 0 is the identity.
void fillKernel(float* taps, double fraction) {
    constexpr double halfWidth = VariableRatioResampler::kTaps / 2.0;
    const double windowNorm = besselI0(kKaiserBeta);
    double sum = 0.0;
    double values[VariableRatioResampler::kTaps];
    for (int k = 0; k < VariableRatioResampler::kTaps; ++k) {
        const double t = static_cast<double>(k) - static_cast<double>(VariableRatioResampler::kDelayFrames) - fraction;
        // Exactly 0 at whole frames (sin(π·k) is not, in floating point): fraction 0 passes the input through bit for bit.
        const double sinc = t == std::round(t) ? (t == 0.0 ? 1.0 : 0.0) : std::sin(std::numbers::pi * t) / (std::numbers::pi * t);
        const double ratio = t / halfWidth;
        const double window = ratio * ratio < 1.0 ? besselI0(kKaiserBeta * std::sqrt(1.0 - ratio * ratio)) / windowNorm : 0.0;
        values[k] = sinc * window;
        sum += values[k];
    }
    // Unity gain at 0 Hz at every delay: a constant stays exactly constant.
    for (int k = 0; k < VariableRatioResampler::kTaps; ++k) taps[k] = static_cast<float>(values[k] / sum);
}

}  // namespace

VariableRatioResampler::VariableRatioResampler(int64_t maximumOutputFrames)
    : capacityFrames_(static_cast<int64_t>(std::ceil(static_cast<double>(std::max<int64_t>(maximumOutputFrames, 1)) *
                                                     (1.0 + kLargestCorrection))) +
                      2 * kTaps + 2),
      input_(std::make_unique<float[]>(static_cast<size_t>(capacityFrames_))),
      kernels_(std::make_unique<float[]>(static_cast<size_t>((kPhases + 1) * kTaps))) {
    for (int phase = 0; phase <= kPhases; ++phase) {
        fillKernel(kernels_.get() + static_cast<ptrdiff_t>(phase) * kTaps, static_cast<double>(phase) / kPhases);
    }
}

double VariableRatioResampler::clampStep(double step) {
    return std::clamp(step, 1.0 - kLargestCorrection, 1.0 + kLargestCorrection);
}

int64_t VariableRatioResampler::inputFramesNeeded(int64_t outputFrames, double step) const {
    if (outputFrames < 1) return 0;
    const double last = position_ + static_cast<double>(outputFrames - 1) * clampStep(step);
    return std::max<int64_t>(0, static_cast<int64_t>(std::floor(last)) + kTaps - bufferedFrames_);
}

int64_t VariableRatioResampler::outputFramesAfterPushing(int64_t moreInputFrames, double step) const {
    // The largest floor(position) with a whole kernel of input behind it.
    const double lastUsable = static_cast<double>(bufferedFrames_ + moreInputFrames - kTaps);
    if (lastUsable < position_) return 0;
    return static_cast<int64_t>(std::floor((lastUsable - position_) / clampStep(step))) + 1;
}

int64_t VariableRatioResampler::outputFramesToTakeIn(int64_t moreInputFrames, double step) const {
    if (moreInputFrames < 1) return 0;
    // The smallest n whose last kernel reaches the last of the new input.
    const double last = static_cast<double>(bufferedFrames_ + moreInputFrames - kTaps) - position_;
    return std::max<int64_t>(1, static_cast<int64_t>(std::ceil(last / clampStep(step))) + 1);
}

int64_t VariableRatioResampler::outputFramesToEmpty(int64_t moreInputFrames, double step) const {
    // Output n sits at input position_ + n × step + kDelayFrames.
    const double end =
        static_cast<double>(bufferedFrames_ - silentTailFrames_ + moreInputFrames - kDelayFrames) - position_;
    return end <= 0 ? 0 : static_cast<int64_t>(std::ceil(end / clampStep(step)));
}

int64_t VariableRatioResampler::push(const float* input, int64_t frames) {
    const int64_t taken = std::clamp<int64_t>(frames, 0, capacityFrames_ - bufferedFrames_);
    if (taken > 0) std::memcpy(input_.get() + bufferedFrames_, input, static_cast<size_t>(taken) * sizeof(float));
    bufferedFrames_ += taken;
    if (taken > 0) silentTailFrames_ = 0;
    return taken;
}

int64_t VariableRatioResampler::pushSilence(int64_t frames) {
    const int64_t taken = std::clamp<int64_t>(frames, 0, capacityFrames_ - bufferedFrames_);
    std::fill_n(input_.get() + bufferedFrames_, taken, 0.0f);
    bufferedFrames_ += taken;
    silentTailFrames_ += taken;
    return taken;
}

int64_t VariableRatioResampler::process(float* output, int64_t outputFrames, double step) {
    step = clampStep(step);
    const float* input = input_.get();
    const float* kernels = kernels_.get();
    int64_t made = 0;
    for (; made < outputFrames; ++made) {
        const auto first = static_cast<int64_t>(position_);
        if (first + kTaps > bufferedFrames_) break;
        const double phasePosition = (position_ - static_cast<double>(first)) * kPhases;
        const auto phase = static_cast<int>(phasePosition);
        const auto blend = static_cast<float>(phasePosition - phase);
        const float* lower = kernels + static_cast<ptrdiff_t>(phase) * kTaps;
        const float* upper = lower + kTaps;
        const float* x = input + first;
        // Four independent sums, so that the compiler can keep them in one vector
        // register (a single running float sum may not be reordered). At a blend of 0
        // the kernel is exactly the lower one: fraction 0 stays bit for bit.
        constexpr int kLanes = 4;
        float sums[kLanes] = {0.0f, 0.0f, 0.0f, 0.0f};
        for (int k = 0; k < kTaps; k += kLanes) {
            for (int lane = 0; lane < kLanes; ++lane) {
                const float weight = lower[k + lane] + blend * (upper[k + lane] - lower[k + lane]);
                sums[lane] += weight * x[k + lane];
            }
        }
        output[made] = (sums[0] + sums[1]) + (sums[2] + sums[3]);
        position_ += step;
    }
    std::fill(output + made, output + std::max(made, outputFrames), 0.0f);
    // Keep only what later frames can still reach.
    const int64_t consumed = std::min<int64_t>(static_cast<int64_t>(position_), bufferedFrames_);
    if (consumed > 0) {
        std::memmove(input_.get(), input_.get() + consumed, static_cast<size_t>(bufferedFrames_ - consumed) * sizeof(float));
        bufferedFrames_ -= consumed;
        silentTailFrames_ = std::min(silentTailFrames_, bufferedFrames_);
        position_ -= static_cast<double>(consumed);
    }
    return made;
}

void VariableRatioResampler::reset() {
    bufferedFrames_ = 0;
    silentTailFrames_ = 0;
    position_ = 0.0;
}

}  // namespace velto
