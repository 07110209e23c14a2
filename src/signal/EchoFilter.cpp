#include "signal/EchoFilter.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace velto {

namespace {
// Samples are worked on at 16-bit scale, where the small constants below that keep
// divisions away from zero have their meaning.
constexpr float kScale = 32768.0f;
constexpr double kDcBlockerPole = 0.99;
constexpr float kPreEmphasis = 0.9f;
// The residual's share of echo is never taken below this, nor the step above half.
constexpr double kMinimumLeak = 0.005;
constexpr double kLargestStep = 0.5;
// Until the filter has adapted this far (in steps summed) it takes fixed steps.
constexpr double kAdaptedLeak = 0.03;
// A reference quieter than this per sample (16-bit scale, about -57 dBFS) teaches nothing.
constexpr double kTeachingReferenceEnergy = 2000.0;
// How plainly one filter must beat the other before the heard one takes its weights
// (the adapting one leaves less), or the adapting one is put back (it leaves more).
constexpr double kFastUpdateVariance = 0.5;
constexpr double kSlowUpdateVariance = 0.25;
constexpr double kBacktrackVariance = 4.0;

inline void multiplyAccumulate(const float* a, const float* b, float* sum, int64_t bins) noexcept {
    for (int64_t k = 0; k < bins; ++k) {
        const float ar = a[2 * k], ai = a[2 * k + 1], br = b[2 * k], bi = b[2 * k + 1];
        sum[2 * k] += ar * br - ai * bi;
        sum[2 * k + 1] += ar * bi + ai * br;
    }
}

inline double sumOfProducts(const float* a, const float* b, int64_t count) noexcept {
    double sum = 0;
    for (int64_t i = 0; i < count; ++i) sum += static_cast<double>(a[i]) * b[i];
    return sum;
}

inline float power(const float* spectrum, int64_t bin) noexcept {
    return spectrum[2 * bin] * spectrum[2 * bin] + spectrum[2 * bin + 1] * spectrum[2 * bin + 1];
}
}  // namespace

EchoFilter::EchoFilter(int64_t blockFrames, int64_t filterFrames, double sampleRateHertz)
    : blockFrames_(blockFrames),
      windowFrames_(2 * blockFrames),
      bins_(blockFrames + 1),
      partitions_(std::max<int64_t>(1, filterFrames / blockFrames)),
      spectrumFollow_(static_cast<double>(blockFrames) / sampleRateHertz),
      leakFollow_(2.0 * static_cast<double>(blockFrames) / sampleRateHertz),
      leakFollowLimit_(0.5 * static_cast<double>(blockFrames) / sampleRateHertz),
      fft_(2 * blockFrames),
      referenceWindow_(static_cast<size_t>(windowFrames_)),
      referenceSpectra_(static_cast<size_t>(partitions_ * 2 * bins_)),
      adapting_(referenceSpectra_.size()),
      heard_(referenceSpectra_.size()),
      errorSpectrum_(static_cast<size_t>(2 * bins_)),
      referencePower_(static_cast<size_t>(bins_)),
      errorPowerAverage_(static_cast<size_t>(bins_)),
      echoPowerAverage_(static_cast<size_t>(bins_)),
      stepPerBin_(static_cast<size_t>(bins_)),
      partitionShare_(static_cast<size_t>(partitions_)),
      heardOutput_(static_cast<size_t>(blockFrames)),
      adaptingOutput_(heardOutput_.size()),
      heardEcho_(heardOutput_.size()),
      adaptingEcho_(heardOutput_.size()),
      microphoneWithoutDc_(heardOutput_.size()) {
    reset();
}

void EchoFilter::reset() noexcept {
    for (auto* v : {&referenceWindow_, &referenceSpectra_, &adapting_, &heard_, &referencePower_, &errorPowerAverage_,
                    &echoPowerAverage_, &stepPerBin_})
        std::fill(v->begin(), v->end(), 0.0f);
    // Before the filter knows where its echo lies, the early partitions (where a
    // room's echo is loudest) adapt the most.
    const double decay = std::exp(-2.4 / static_cast<double>(partitions_));
    double share = 0.7, sum = 0;
    for (auto& s : partitionShare_) {
        s = share;
        sum += share;
        share *= decay;
    }
    for (auto& s : partitionShare_) s = 0.8 * s / sum;
    referenceNewest_ = 0;
    leakCovariance_ = echoVariance_ = 0;
    sumAdaptation_ = 0;
    adapted_ = false;
    differenceFast_ = differenceSlow_ = varianceFast_ = varianceSlow_ = 0;
    constraintTurn_ = 0;
    referenceInput_ = microphoneInput_ = InputConditioner{};
    previousOutput_ = 0;
}

// To 16-bit scale, without DC, pre-emphasised.
void EchoFilter::InputConditioner::condition(const float* in, float* out, int64_t frames) noexcept {
    for (int64_t i = 0; i < frames; ++i) {
        const double scaled = static_cast<double>(in[i]) * kScale;
        const double withoutDc = scaled - dcInput + kDcBlockerPole * dcOutput;
        dcInput = scaled;
        dcOutput = withoutDc;
        out[i] = static_cast<float>(withoutDc) - kPreEmphasis * previous;
        previous = static_cast<float>(withoutDc);
    }
}

float* EchoFilter::partition(std::vector<float>& spectra, int64_t index) noexcept {
    return spectra.data() + index * 2 * bins_;
}

const float* EchoFilter::referenceSpectrum(int64_t blocksBack) const noexcept {
    const int64_t slot = (referenceNewest_ + blocksBack) % partitions_;
    return referenceSpectra_.data() + slot * 2 * bins_;
}

// The echo the weights model for the newest block, into fft_.timeDomain()'s second half.
void EchoFilter::accumulateEcho(const std::vector<float>& weights) noexcept {
    float* sum = fft_.spectrum();
    std::memset(sum, 0, sizeof(float) * static_cast<size_t>(2 * bins_));
    for (int64_t p = 0; p < partitions_; ++p)
        multiplyAccumulate(weights.data() + p * 2 * bins_, referenceSpectrum(p), sum, bins_);
    fft_.inverse();
}

void EchoFilter::process(const float* reference, const float* microphone, float* cancelled) noexcept {
    const int64_t B = blockFrames_;
    // The newest reference block joins the window; its spectrum becomes the newest.
    std::memmove(referenceWindow_.data(), referenceWindow_.data() + B, sizeof(float) * static_cast<size_t>(B));
    float* newest = referenceWindow_.data() + B;
    referenceInput_.condition(reference, newest, B);
    std::memcpy(fft_.timeDomain(), referenceWindow_.data(), sizeof(float) * static_cast<size_t>(windowFrames_));
    fft_.forward();
    referenceNewest_ = (referenceNewest_ + partitions_ - 1) % partitions_;
    std::memcpy(partition(referenceSpectra_, referenceNewest_), fft_.spectrum(), sizeof(float) * static_cast<size_t>(2 * bins_));

    float* d = microphoneWithoutDc_.data();
    microphoneInput_.condition(microphone, d, B);

    accumulateEcho(heard_);
    for (int64_t i = 0; i < B; ++i) {
        heardEcho_[static_cast<size_t>(i)] = fft_.timeDomain()[B + i];
        heardOutput_[static_cast<size_t>(i)] = d[i] - heardEcho_[static_cast<size_t>(i)];
    }
    accumulateEcho(adapting_);
    for (int64_t i = 0; i < B; ++i) {
        adaptingEcho_[static_cast<size_t>(i)] = fft_.timeDomain()[B + i];
        adaptingOutput_[static_cast<size_t>(i)] = d[i] - adaptingEcho_[static_cast<size_t>(i)];
    }
    const double sumHeard = sumOfProducts(heardOutput_.data(), heardOutput_.data(), B);
    double sumError = sumOfProducts(adaptingOutput_.data(), adaptingOutput_.data(), B);
    double sumEchoDifference = 0;
    for (int64_t i = 0; i < B; ++i) {
        const double difference = static_cast<double>(adaptingEcho_[static_cast<size_t>(i)]) - heardEcho_[static_cast<size_t>(i)];
        sumEchoDifference += difference * difference;
    }
    const double sumReference = sumOfProducts(newest, newest, B);

    // A filter that has blown up (or met non-finite input) starts over, and passes the microphone.
    const double blownUp = static_cast<double>(windowFrames_) * 1e9;
    if (!(sumHeard < blownUp) || !(sumError < blownUp) || !(sumReference < blownUp)) {
        reset();
        for (int64_t i = 0; i < B; ++i) cancelled[i] = std::isfinite(microphone[i]) ? microphone[i] : 0.0f;
        return;
    }

    // Two paths: which filter is heard, and which one adapts from here.
    const double difference = sumHeard - sumError;
    const double spread = sumHeard * sumEchoDifference;
    differenceFast_ = 0.6 * differenceFast_ + 0.4 * difference;
    varianceFast_ = 0.36 * varianceFast_ + 0.16 * spread;
    differenceSlow_ = 0.85 * differenceSlow_ + 0.15 * difference;
    varianceSlow_ = 0.7225 * varianceSlow_ + 0.0225 * spread;
    const auto plainly = [](double d, double variance, double factor) { return d * std::abs(d) > factor * variance; };
    const float* error = adaptingOutput_.data();
    const float* echo = adaptingEcho_.data();
    if (plainly(difference, spread, 1.0) || plainly(differenceFast_, varianceFast_, kFastUpdateVariance) ||
        plainly(differenceSlow_, varianceSlow_, kSlowUpdateVariance)) {
        // The adapting filter leaves less: it is heard from here, faded in over this block.
        std::copy(adapting_.begin(), adapting_.end(), heard_.begin());
        differenceFast_ = differenceSlow_ = varianceFast_ = varianceSlow_ = 0;
        for (int64_t i = 0; i < B; ++i) {
            const float weight = static_cast<float>(i + 1) / static_cast<float>(B);
            cancelled[i] = weight * adaptingOutput_[static_cast<size_t>(i)] + (1.0f - weight) * heardOutput_[static_cast<size_t>(i)];
        }
    } else {
        if (plainly(-difference, spread, kBacktrackVariance) || plainly(-differenceFast_, varianceFast_, kBacktrackVariance) ||
            plainly(-differenceSlow_, varianceSlow_, kBacktrackVariance)) {
            // The adapting filter was misled (double talk): it goes back to the heard one.
            std::copy(heard_.begin(), heard_.end(), adapting_.begin());
            error = heardOutput_.data();
            echo = heardEcho_.data();
            sumError = sumHeard;
            differenceFast_ = differenceSlow_ = varianceFast_ = varianceSlow_ = 0;
        }
        for (int64_t i = 0; i < B; ++i) cancelled[i] = heardOutput_[static_cast<size_t>(i)];
    }
    for (int64_t i = 0; i < B; ++i) {
        previousOutput_ = cancelled[i] + kPreEmphasis * previousOutput_;
        cancelled[i] = previousOutput_ / kScale;
    }
    adapt(error, echo, sumReference, sumError, sumOfProducts(echo, echo, B));
}

void EchoFilter::adapt(const float* error, const float* echo, double sumReference, double sumError, double sumEcho) noexcept {
    const int64_t B = blockFrames_;
    const double errorEchoCorrelation = sumOfProducts(error, echo, B);
    float* time = fft_.timeDomain();
    // The error's and the echo estimate's spectra, each zero-padded in front.
    std::memset(time, 0, sizeof(float) * static_cast<size_t>(B));
    std::memcpy(time + B, error, sizeof(float) * static_cast<size_t>(B));
    fft_.forward();
    std::memcpy(errorSpectrum_.data(), fft_.spectrum(), sizeof(float) * errorSpectrum_.size());
    std::memcpy(time + B, echo, sizeof(float) * static_cast<size_t>(B));
    fft_.forward();
    const float* echoSpectrum = fft_.spectrum();

    // How much of the residual is still echo: its power, per bin, follows the echo
    // estimate's as far as it is.
    const float* newestReference = referenceSpectrum(0);
    const auto referenceFollow = static_cast<float>(0.35 / static_cast<double>(partitions_));
    const auto spectrumFollow = static_cast<float>(spectrumFollow_);
    double covariance = 0, variance = 0;
    for (int64_t k = 0; k < bins_; ++k) {
        const float errorPower = power(errorSpectrum_.data(), k);
        const float echoPower = power(echoSpectrum, k);
        referencePower_[k] = (1.0f - referenceFollow) * referencePower_[k] + 1.0f + referenceFollow * power(newestReference, k);
        covariance += static_cast<double>(errorPower - errorPowerAverage_[k]) * (echoPower - echoPowerAverage_[k]);
        variance += static_cast<double>(echoPower - echoPowerAverage_[k]) * (echoPower - echoPowerAverage_[k]);
        errorPowerAverage_[k] = (1.0f - spectrumFollow) * errorPowerAverage_[k] + spectrumFollow * errorPower;
        echoPowerAverage_[k] = (1.0f - spectrumFollow) * echoPowerAverage_[k] + spectrumFollow * echoPower;
        // Kept for the step below (the echo spectrum's storage is reused by then).
        stepPerBin_[k] = echoPower;
    }
    // Each block counts by its spread's root rather than its square, so loud blocks do
    // not drown the estimate.
    variance = std::sqrt(variance);
    covariance = variance > 0 ? covariance / variance : 0;
    const double follow = std::min(leakFollow_ * sumEcho / (sumError + 1.0), leakFollowLimit_);
    leakCovariance_ = (1 - follow) * leakCovariance_ + follow * covariance;
    echoVariance_ = std::max(1.0, (1 - follow) * echoVariance_ + follow * variance);
    leakCovariance_ = std::clamp(leakCovariance_, kMinimumLeak * echoVariance_, echoVariance_);
    const double leak = leakCovariance_ / echoVariance_;

    // The residual-to-error ratio over the whole block, a floor under each bin's.
    double residualRatio = (0.0001 * sumReference + 3.0 * leak * sumEcho) / (sumError + 1.0);
    residualRatio = std::max(residualRatio, errorEchoCorrelation * errorEchoCorrelation / (1.0 + sumError * sumEcho));
    residualRatio = std::min(residualRatio, kLargestStep);

    if (!adapted_ && sumAdaptation_ > static_cast<double>(partitions_) && leak > kAdaptedLeak) adapted_ = true;
    if (adapted_) {
        for (int64_t k = 0; k < bins_; ++k) {
            const double errorPower = static_cast<double>(power(errorSpectrum_.data(), k)) + 1.0;
            double residual = std::min(leak * stepPerBin_[k], 0.5 * errorPower);
            residual = 0.7 * residual + 0.3 * residualRatio * errorPower;
            stepPerBin_[k] = static_cast<float>(residual / (errorPower * (referencePower_[k] + 10.0)));
        }
        adjustPartitionShares();
    } else {
        // Early on, steps in proportion to how much of the microphone the reference can explain.
        double rate = 0;
        if (sumReference > static_cast<double>(windowFrames_) * kTeachingReferenceEnergy && sumError > 0)
            rate = std::min(0.25 * sumReference, 0.25 * sumError) / sumError;
        for (int64_t k = 0; k < bins_; ++k) stepPerBin_[k] = static_cast<float>(rate / (referencePower_[k] + 10.0));
        sumAdaptation_ += rate;
    }

    // Each partition steps along its reference's correlation with the error.
    const float* e = errorSpectrum_.data();
    for (int64_t p = 0; p < partitions_; ++p) {
        const float* x = referenceSpectrum(p);
        float* w = partition(adapting_, p);
        const auto share = static_cast<float>(partitionShare_[static_cast<size_t>(p)]);
        for (int64_t k = 0; k < bins_; ++k) {
            const float step = share * stepPerBin_[k];
            const float xr = x[2 * k], xi = x[2 * k + 1], er = e[2 * k], ei = e[2 * k + 1];
            w[2 * k] += step * (xr * er + xi * ei);
            w[2 * k + 1] += step * (xr * ei - xi * er);
        }
    }
    // The first partition every block, one of the others in turn: each keeps to its block.
    constrainPartition(0);
    if (partitions_ > 1) {
        constrainPartition(1 + constraintTurn_ % (partitions_ - 1));
        ++constraintTurn_;
    }
}

// A partition whose weights spread past its block would alias into the next block's echo.
void EchoFilter::constrainPartition(int64_t index) noexcept {
    float* w = partition(adapting_, index);
    std::memcpy(fft_.spectrum(), w, sizeof(float) * static_cast<size_t>(2 * bins_));
    fft_.inverse();
    std::memset(fft_.timeDomain() + blockFrames_, 0, sizeof(float) * static_cast<size_t>(blockFrames_));
    fft_.forward();
    std::memcpy(w, fft_.spectrum(), sizeof(float) * static_cast<size_t>(2 * bins_));
}

// Partitions that hold more of the echo's response adapt faster (proportionate steps).
void EchoFilter::adjustPartitionShares() noexcept {
    double largest = 1.0, sum = 1.0;
    for (int64_t p = 0; p < partitions_; ++p) {
        const float* w = partition(adapting_, p);
        double energy = 1.0;
        for (int64_t k = 0; k < bins_; ++k) energy += power(w, k);
        partitionShare_[static_cast<size_t>(p)] = std::sqrt(energy);
        largest = std::max(largest, partitionShare_[static_cast<size_t>(p)]);
    }
    for (auto& s : partitionShare_) {
        s += 0.1 * largest;
        sum += s;
    }
    for (auto& s : partitionShare_) s = 0.99 * s / sum;
}

}  // namespace velto
