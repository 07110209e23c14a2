#pragma once

#include <cstdint>

namespace velto {

// A real-to-complex FFT of one fixed size, on FFTW. forward() and inverse() work on
// the object's own aligned buffers (timeDomain(), spectrum()), so they never allocate
// and FFTW uses its vector code; the spectrum holds bins() interleaved complex values
// (real, imaginary), bin 0 to size/2. forward() scales by 1/size and inverse() is
// unscaled, so inverse(forward(x)) == x and a spectrum's power is the signal's per sample.
//
// Threads: any number of instances on any threads; one instance on one thread at a
// time. FFTW's planner is not thread-safe: construction and destruction take a
// process-wide lock (never on a real-time path).
class RealFft {
public:
    explicit RealFft(int64_t size);
    ~RealFft();
    RealFft(const RealFft&) = delete;
    RealFft& operator=(const RealFft&) = delete;

    int64_t size() const { return size_; }
    int64_t bins() const { return size_ / 2 + 1; }
    float* timeDomain() { return time_; }
    float* spectrum() { return spectrum_; }

    // timeDomain() -> spectrum(), scaled by 1/size; timeDomain() is kept.
    void forward() noexcept;
    // spectrum() -> timeDomain(); spectrum() is overwritten.
    void inverse() noexcept;

private:
    int64_t size_;
    float* time_ = nullptr;
    float* spectrum_ = nullptr;
    void* forwardPlan_ = nullptr;
    void* inversePlan_ = nullptr;
};

}  // namespace velto
