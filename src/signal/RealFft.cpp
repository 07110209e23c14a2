#include "signal/RealFft.hpp"

#include <fftw3.h>

#include <mutex>
#include <new>

namespace velto {

namespace {
std::mutex& plannerLock() {
    static std::mutex lock;
    return lock;
}
}  // namespace

RealFft::RealFft(int64_t size) : size_(size) {
    std::lock_guard<std::mutex> guard(plannerLock());
    time_ = fftwf_alloc_real(static_cast<size_t>(size));
    spectrum_ = reinterpret_cast<float*>(fftwf_alloc_complex(static_cast<size_t>(size / 2 + 1)));
    // FFTW_ESTIMATE: the same plan on every machine and run (FFTW_MEASURE times
    // candidates, so two runs could round differently), made in microseconds.
    if (time_ && spectrum_) {
        forwardPlan_ = fftwf_plan_dft_r2c_1d(static_cast<int>(size), time_, reinterpret_cast<fftwf_complex*>(spectrum_),
                                             FFTW_ESTIMATE);
        inversePlan_ = fftwf_plan_dft_c2r_1d(static_cast<int>(size), reinterpret_cast<fftwf_complex*>(spectrum_), time_,
                                             FFTW_ESTIMATE);
    }
    if (!forwardPlan_ || !inversePlan_) {
        if (forwardPlan_) fftwf_destroy_plan(static_cast<fftwf_plan>(forwardPlan_));
        if (inversePlan_) fftwf_destroy_plan(static_cast<fftwf_plan>(inversePlan_));
        fftwf_free(time_);
        fftwf_free(spectrum_);
        throw std::bad_alloc();
    }
}

RealFft::~RealFft() {
    std::lock_guard<std::mutex> guard(plannerLock());
    fftwf_destroy_plan(static_cast<fftwf_plan>(forwardPlan_));
    fftwf_destroy_plan(static_cast<fftwf_plan>(inversePlan_));
    fftwf_free(time_);
    fftwf_free(spectrum_);
}

void RealFft::forward() noexcept {
    fftwf_execute(static_cast<fftwf_plan>(forwardPlan_));
    const float scale = 1.0f / static_cast<float>(size_);
    for (int64_t i = 0; i < 2 * bins(); ++i) spectrum_[i] *= scale;
}

void RealFft::inverse() noexcept { fftwf_execute(static_cast<fftwf_plan>(inversePlan_)); }

}  // namespace velto
