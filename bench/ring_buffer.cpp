// Cost of handing 1024-frame stereo blocks through FloatRingBuffer (one write
// and one read), against plain memcpy of the same bytes measured in the same
// run. Counter "vs_memcpy": ring time ÷ memcpy time (1.0 = no overhead).
#include <benchmark/benchmark.h>

#include <array>
#include <cstring>
#include <vector>

#include "signal/FloatRingBuffer.hpp"
#include "ThreadCpuTime.hpp"

namespace {

constexpr int64_t kBlockFrames = 1024;
constexpr int kChannels = 2;

void BM_RingBufferWriteRead1024(benchmark::State& state) {
    auto ring = velto::FloatRingBuffer::create(kChannels, 96000);
    std::vector<float> left(kBlockFrames, 0.25f), right(kBlockFrames, -0.25f);
    std::vector<float> outLeft(kBlockFrames), outRight(kBlockFrames);
    const std::array<const float*, kChannels> sources{left.data(), right.data()};
    const std::array<float*, kChannels> destinations{outLeft.data(), outRight.data()};

    const auto ringStart = threadCpuSeconds();
    for (auto _ : state) {
        benchmark::DoNotOptimize(ring->write(sources, kBlockFrames));
        ring->read(destinations, kBlockFrames);
        benchmark::ClobberMemory();
    }
    const double ringSeconds = threadCpuSeconds() - ringStart;

    // The reference: the same bytes copied in and out with memcpy, as often.
    std::vector<float> storageLeft(kBlockFrames), storageRight(kBlockFrames);
    const auto copyStart = threadCpuSeconds();
    for (benchmark::IterationCount i = 0; i < state.iterations(); ++i) {
        std::memcpy(storageLeft.data(), left.data(), kBlockFrames * sizeof(float));
        std::memcpy(storageRight.data(), right.data(), kBlockFrames * sizeof(float));
        benchmark::ClobberMemory();
        std::memcpy(outLeft.data(), storageLeft.data(), kBlockFrames * sizeof(float));
        std::memcpy(outRight.data(), storageRight.data(), kBlockFrames * sizeof(float));
        benchmark::ClobberMemory();
    }
    const double copySeconds = threadCpuSeconds() - copyStart;

    state.SetBytesProcessed(state.iterations() * kBlockFrames * kChannels * static_cast<int64_t>(sizeof(float)));
    state.counters["vs_memcpy"] = benchmark::Counter(ringSeconds / copySeconds);
    state.counters["memcpy_ns"] = benchmark::Counter(copySeconds * 1e9 / static_cast<double>(state.iterations()));
}
BENCHMARK(BM_RingBufferWriteRead1024);

}  // namespace

BENCHMARK_MAIN();
