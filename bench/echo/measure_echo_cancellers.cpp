// Offline comparison of echo cancellers on synthetic echo paths, to choose the
// one the recorder runs. Not a test: prints a table.
//
//   velto_measure_echo_cancellers [speech-directory]
//
// speech-directory holds far.wav and near.wav from scripts/render-echo-speech.sh;
// without it the speech case is skipped.
//
// Per candidate, over echo delays 20-300 ms and attenuations 0-20 dB (with a
// short room response), it reports the worst case of:
//   erle     echo reduction (dB) from 3 s to 8 s, far end alone
//   alone    near-end tone level change (dB) after the far end falls silent
//   double   near-end tone level change (dB) while the far end keeps playing
//   no-echo  near-end tone change (dB) with the far end playing but no echo path
// then the espeak-ng speech case, and CPU per recorded second.

#include <sndfile.h>
#include <speex/speex_echo.h>
#include <speex/speex_preprocess.h>
#include <webrtc/modules/audio_processing/include/audio_processing.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <memory>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include "../ThreadCpuTime.hpp"
#include "signal/EchoCanceller.hpp"
#include "signal/EchoDelayEstimator.hpp"

namespace {

constexpr int kRate = 16000;
constexpr int kFrame = 160;
using Signal = std::vector<float>;

// ---- candidates ----------------------------------------------------------

class Candidate {
public:
    virtual ~Candidate() = default;
    // One 10 ms frame: the system audio (far end) and the microphone, sample-aligned.
    virtual void process(const float* far, const float* mic, float* out) = 0;
};

int16_t toPcm(float v) { return static_cast<int16_t>(std::clamp(std::lround(v * 32767.0f), -32768L, 32767L)); }

// Delays the far end by the estimator's delay minus a margin, so that a short
// filter covers the echo; restarts the filter when the delay moves.
class Aligner {
public:
    Aligner(bool enabled, int64_t marginFrames)
        : enabled_(enabled), marginFrames_(marginFrames), estimator_(kRate / 2), history_(kRate, 0.0f) {}
    // Returns true when the alignment changed.
    bool align(const float* far, const float* mic, float* aligned) {
        estimator_.process(far, mic, kFrame);
        frames_ += kFrame;
        bool changed = false;
        const int64_t delay = estimator_.delayFrames();
        if (enabled_ && delay >= 0) {
            const int64_t shift = std::max<int64_t>(0, delay - marginFrames_);
            if (shift != shift_) {
                if (std::getenv("ECHO_VERBOSE")) std::printf("      at %.2f s: delay %lld frames\n", static_cast<double>(frames_) / kRate, static_cast<long long>(delay));
                shift_ = shift;
                changed = true;
            }
        }
        const auto size = static_cast<int64_t>(history_.size());
        for (int i = 0; i < kFrame; ++i) {
            history_[static_cast<size_t>(writeIndex_)] = far[i];
            aligned[i] = history_[static_cast<size_t>((writeIndex_ - shift_ + size) % size)];
            writeIndex_ = (writeIndex_ + 1) % size;
        }
        return changed;
    }
    int64_t estimate() const { return estimator_.delayFrames(); }

private:
    bool enabled_;
    int64_t marginFrames_;
    velto::EchoDelayEstimator estimator_;
    Signal history_;
    int64_t writeIndex_ = 0;
    int64_t shift_ = 0;
    int64_t frames_ = 0;
};

struct SpeexOptions {
    int filterFrames = 1024;
    bool align = false;
    bool residual = false;
    int suppressDb = -40;
    int suppressActiveDb = -15;
};

class SpeexCandidate final : public Candidate {
public:
    explicit SpeexCandidate(SpeexOptions o) : options_(o), aligner_(o.align, 160) {
        echo_ = speex_echo_state_init(kFrame, o.filterFrames);
        int rate = kRate;
        speex_echo_ctl(echo_, SPEEX_ECHO_SET_SAMPLING_RATE, &rate);
        if (o.residual) {
            pre_ = speex_preprocess_state_init(kFrame, kRate);
            int off = 0, on = 1;
            speex_preprocess_ctl(pre_, SPEEX_PREPROCESS_SET_AGC, &off);
            speex_preprocess_ctl(pre_, SPEEX_PREPROCESS_SET_DEREVERB, &off);
            speex_preprocess_ctl(pre_, SPEEX_PREPROCESS_SET_DENOISE, &on);
            int noise = 0;  // keep noise; only the echo is to be suppressed
            speex_preprocess_ctl(pre_, SPEEX_PREPROCESS_SET_NOISE_SUPPRESS, &noise);
            speex_preprocess_ctl(pre_, SPEEX_PREPROCESS_SET_ECHO_SUPPRESS, &options_.suppressDb);
            speex_preprocess_ctl(pre_, SPEEX_PREPROCESS_SET_ECHO_SUPPRESS_ACTIVE, &options_.suppressActiveDb);
            speex_preprocess_ctl(pre_, SPEEX_PREPROCESS_SET_ECHO_STATE, echo_);
        }
    }
    ~SpeexCandidate() override {
        if (pre_) speex_preprocess_state_destroy(pre_);
        speex_echo_state_destroy(echo_);
    }
    void process(const float* far, const float* mic, float* out) override {
        float aligned[kFrame];
        if (aligner_.align(far, mic, aligned)) speex_echo_state_reset(echo_);
        spx_int16_t play[kFrame], rec[kFrame], res[kFrame];
        for (int i = 0; i < kFrame; ++i) {
            play[i] = toPcm(aligned[i]);
            rec[i] = toPcm(mic[i]);
        }
        speex_echo_cancellation(echo_, rec, play, res);
        if (pre_) speex_preprocess_run(pre_, res);
        for (int i = 0; i < kFrame; ++i) out[i] = static_cast<float>(res[i]) / 32767.0f;
    }

private:
    SpeexOptions options_;
    Aligner aligner_;
    SpeexEchoState* echo_ = nullptr;
    SpeexPreprocessState* pre_ = nullptr;
};

struct WebRtcOptions {
    webrtc::EchoCancellation::SuppressionLevel level = webrtc::EchoCancellation::kModerateSuppression;
    bool extended = true;
    bool delayAgnostic = false;
    bool tellTrueDelay = false;  // else our estimator aligns the far end
    bool mobile = false;          // the AECM instead of the AEC
};

class WebRtcCandidate final : public Candidate {
public:
    WebRtcCandidate(WebRtcOptions o, int trueDelayMs) : options_(o), trueDelayMs_(trueDelayMs), aligner_(!o.tellTrueDelay, 160) {
        webrtc::Config config;
        config.Set<webrtc::ExtendedFilter>(new webrtc::ExtendedFilter(o.extended));
        config.Set<webrtc::DelayAgnostic>(new webrtc::DelayAgnostic(o.delayAgnostic));
        apm_.reset(webrtc::AudioProcessing::Create(config));
        webrtc::ProcessingConfig pc = {{webrtc::StreamConfig(kRate, 1), webrtc::StreamConfig(kRate, 1),
                                        webrtc::StreamConfig(kRate, 1), webrtc::StreamConfig(kRate, 1)}};
        apm_->Initialize(pc);
        if (o.mobile) {
            apm_->echo_control_mobile()->Enable(true);
            apm_->echo_control_mobile()->set_routing_mode(webrtc::EchoControlMobile::kLoudSpeakerphone);
        } else {
            apm_->echo_cancellation()->Enable(true);
            apm_->echo_cancellation()->enable_drift_compensation(false);
            apm_->echo_cancellation()->set_suppression_level(o.level);
            apm_->echo_cancellation()->enable_metrics(true);
            apm_->echo_cancellation()->enable_delay_logging(true);
        }
    }
    void process(const float* far, const float* mic, float* out) override {
        float aligned[kFrame];
        aligner_.align(far, mic, aligned);
        const float* reverse[1] = {aligned};
        webrtc::StreamConfig sc(kRate, 1);
        apm_->ProcessReverseStream(reverse, sc, sc, const_cast<float* const*>(reverse));
        // With our alignment the remaining delay is the margin (10 ms) until a
        // delay is known, or 10 ms: the filter's start sits before the echo.
        apm_->set_stream_delay_ms(options_.tellTrueDelay ? trueDelayMs_ : 10);
        const float* src[1] = {mic};
        float* dst[1] = {out};
        apm_->ProcessStream(src, sc, sc, dst);
    }

private:
    WebRtcOptions options_;
    int trueDelayMs_;
    Aligner aligner_;
    std::unique_ptr<webrtc::AudioProcessing> apm_;
};

// The recorder's own canceller, as shipped (its output lags by one frame).
class ShippedCandidate final : public Candidate {
public:
    void process(const float* far, const float* mic, float* out) override {
        float system[kFrame];
        std::copy_n(far, kFrame, system);
        std::copy_n(mic, kFrame, out);
        canceller_->process(out, system, kFrame);
    }

private:
    std::unique_ptr<velto::EchoCanceller> canceller_ = velto::EchoCanceller::create(kFrame);
};

// ---- signals ---------------------------------------------------------------

Signal tone(double hertz, double amplitude, int frames) {
    Signal s(static_cast<size_t>(frames));
    for (int i = 0; i < frames; ++i) s[static_cast<size_t>(i)] = static_cast<float>(amplitude * std::sin(2 * std::numbers::pi * hertz * i / kRate));
    return s;
}

// Three tones whose loudness moves like syllables, so that the far end has an
// envelope to follow and does not excite only three frequencies steadily.
Signal farTones(int frames) {
    Signal s(static_cast<size_t>(frames));
    for (int i = 0; i < frames; ++i) {
        const double t = static_cast<double>(i) / kRate;
        const double a = 0.5 + 0.5 * std::sin(2 * std::numbers::pi * 2.3 * t);
        const double b = 0.5 + 0.5 * std::sin(2 * std::numbers::pi * 3.7 * t + 1.0);
        s[static_cast<size_t>(i)] = static_cast<float>(0.12 * a * std::sin(2 * std::numbers::pi * 310 * t) +
                                                        0.10 * b * std::sin(2 * std::numbers::pi * 730 * t) +
                                                        0.08 * a * b * std::sin(2 * std::numbers::pi * 1630 * t));
    }
    return s;
}

Signal readWav(const std::string& path) {
    SF_INFO info{};
    SNDFILE* f = sf_open(path.c_str(), SFM_READ, &info);
    if (!f || info.samplerate != kRate || info.channels != 1) {
        if (f) sf_close(f);
        return {};
    }
    Signal s(static_cast<size_t>(info.frames));
    sf_readf_float(f, s.data(), info.frames);
    sf_close(f);
    return s;
}

Signal loopTo(const Signal& s, int frames) {
    Signal r(static_cast<size_t>(frames));
    for (int i = 0; i < frames; ++i) r[static_cast<size_t>(i)] = s[static_cast<size_t>(i) % s.size()];
    return r;
}

// Direct sound, three reflections and a 60 ms diffuse tail: a small room.
Signal roomResponse(int delayMs, double attenuationDb) {
    const int delay = delayMs * kRate / 1000;
    const int tail = 60 * kRate / 1000;
    Signal h(static_cast<size_t>(delay + tail), 0.0f);
    const double g = std::pow(10.0, -attenuationDb / 20.0);
    std::mt19937 random(7);
    std::normal_distribution<double> noise(0.0, 1.0);
    h[static_cast<size_t>(delay)] = static_cast<float>(g);
    h[static_cast<size_t>(delay + 1)] = static_cast<float>(0.4 * g);  // a little low-pass
    h[static_cast<size_t>(delay + 45)] += static_cast<float>(-0.35 * g);
    h[static_cast<size_t>(delay + 112)] += static_cast<float>(0.25 * g);
    h[static_cast<size_t>(delay + 190)] += static_cast<float>(-0.15 * g);
    for (int i = 20; i < tail; ++i) h[static_cast<size_t>(delay + i)] += static_cast<float>(0.05 * g * noise(random) * std::exp(-6.9 * i / tail));
    return h;
}

Signal convolve(const Signal& x, const Signal& h) {
    Signal y(x.size(), 0.0f);
    std::vector<std::pair<size_t, float>> taps;
    for (size_t k = 0; k < h.size(); ++k)
        if (h[k] != 0.0f) taps.emplace_back(k, h[k]);
    for (size_t n = 0; n < x.size(); ++n) {
        double acc = 0;
        for (auto [k, v] : taps)
            if (n >= k) acc += v * x[n - k];
        y[n] = static_cast<float>(acc);
    }
    return y;
}

// ---- measurements ----------------------------------------------------------

double power(const Signal& s, int from, int to) {
    double p = 0;
    for (int i = from; i < to; ++i) p += static_cast<double>(s[static_cast<size_t>(i)]) * s[static_cast<size_t>(i)];
    return p / std::max(1, to - from);
}

// Level of the known near-end signal inside the output, in dB relative to the
// near end itself: the projection of the output on it, at the best lag up to
// 20 ms (a canceller may hold back a block).
double nearChangeDb(const Signal& out, const Signal& near, int from, int to) {
    double nn = 0;
    for (int i = from; i < to; ++i) nn += static_cast<double>(near[static_cast<size_t>(i)]) * near[static_cast<size_t>(i)];
    double best = 0;
    for (int lag = 0; lag <= 320; ++lag) {
        double on = 0;
        for (int i = from; i < to - lag; ++i) on += static_cast<double>(out[static_cast<size_t>(i + lag)]) * near[static_cast<size_t>(i)];
        best = std::max(best, std::fabs(on));
    }
    return 20 * std::log10(std::max(best, 1e-12) / nn);
}

struct Cost {
    double cpuSeconds = 0;
    double audioSeconds = 0;
};

Signal run(Candidate& c, const Signal& far, const Signal& mic, Cost& cost) {
    Signal out(mic.size(), 0.0f);
    const double start = threadCpuSeconds();
    for (size_t i = 0; i + kFrame <= mic.size(); i += kFrame) c.process(&far[i], &mic[i], &out[i]);
    cost.cpuSeconds += threadCpuSeconds() - start;
    cost.audioSeconds += static_cast<double>(mic.size()) / kRate;
    return out;
}

Signal mix(std::initializer_list<const Signal*> parts, size_t frames, double noiseDb) {
    Signal s(frames, 0.0f);
    std::mt19937 random(11);
    std::normal_distribution<double> noise(0.0, std::pow(10.0, noiseDb / 20.0));
    for (size_t i = 0; i < frames; ++i) {
        double v = noise(random);
        for (const Signal* p : parts) v += (*p)[i];
        s[i] = static_cast<float>(v);
    }
    return s;
}

Signal gate(Signal s, int from, int to) {
    for (int i = 0; i < static_cast<int>(s.size()); ++i)
        if (i < from || i >= to) s[static_cast<size_t>(i)] = 0.0f;
    return s;
}

using Factory = std::function<std::unique_ptr<Candidate>(int trueDelayMs)>;

struct Row {
    double erle = 1e9, alone = 0, dbl = 0, noEcho = 0;
    double speechErle = 0, speechDouble = 0, speechNoEcho = 0;
    Cost cost;
};

void keepWorst(double& worst, double value) {
    if (std::fabs(value) > std::fabs(worst)) worst = value;
}

Row measure(const Factory& make, const Signal& speechFar, const Signal& speechNear, bool verbose) {
    Row row;
    constexpr int seconds = 8;
    const int n = seconds * kRate;
    const Signal far = farTones(n);
    const Signal nearTone = gate(tone(1000, 0.07, n), 4 * kRate, n);
    const Signal farFirstHalf = gate(far, 0, 4 * kRate);
    const double noiseDb = -80;
    for (int delayMs : {20, 100, 200, 300}) {
        for (double attenuationDb : {0.0, 10.0, 20.0}) {
            const Signal h = roomResponse(delayMs, attenuationDb);
            const Signal echo = convolve(far, h);
            {
                auto c = make(delayMs);
                const Signal mic = mix({&echo}, static_cast<size_t>(n), noiseDb);
                const Signal out = run(*c, far, mic, row.cost);
                const double erle = 10 * std::log10(power(mic, 3 * kRate, n) / power(out, 3 * kRate, n));
                row.erle = std::min(row.erle, erle);
                if (verbose) std::printf("    delay %3d ms atten %2.0f dB: erle %.1f\n", delayMs, attenuationDb, erle);
            }
            {
                auto c = make(delayMs);
                const Signal echoFirst = convolve(farFirstHalf, h);
                const Signal mic = mix({&echoFirst, &nearTone}, static_cast<size_t>(n), noiseDb);
                const Signal out = run(*c, farFirstHalf, mic, row.cost);
                keepWorst(row.alone, nearChangeDb(out, nearTone, 4 * kRate + kRate / 2, n));
            }
            {
                auto c = make(delayMs);
                const Signal mic = mix({&echo, &nearTone}, static_cast<size_t>(n), noiseDb);
                const Signal out = run(*c, far, mic, row.cost);
                const double d = nearChangeDb(out, nearTone, 4 * kRate + kRate / 2, n);
                keepWorst(row.dbl, d);
                if (verbose) std::printf("    delay %3d ms atten %2.0f dB: double talk %.2f\n", delayMs, attenuationDb, d);
            }
        }
    }
    {
        auto c = make(0);
        const Signal alwaysNear = tone(1000, 0.07, n);
        const Signal mic = mix({&alwaysNear}, static_cast<size_t>(n), noiseDb);
        const Signal out = run(*c, far, mic, row.cost);
        row.noEcho = nearChangeDb(out, alwaysNear, kRate, n);
    }
    if (!speechFar.empty() && !speechNear.empty()) {
        // Far voice throughout, near voice from 6 s; echo 150 ms, 6 dB down.
        const int m = 16 * kRate;
        const Signal far16 = loopTo(speechFar, m);
        const Signal nearVoice = gate(loopTo(speechNear, m), 6 * kRate, m);
        Signal nearShifted(static_cast<size_t>(m), 0.0f);
        for (int i = 6 * kRate; i < m; ++i) nearShifted[static_cast<size_t>(i)] = nearVoice[static_cast<size_t>(i - 6 * kRate)] * 0.5f;
        const Signal echo = convolve(far16, roomResponse(150, 6));
        {
            auto c = make(150);
            const Signal mic = mix({&echo}, static_cast<size_t>(m), noiseDb);
            const Signal out = run(*c, far16, mic, row.cost);
            row.speechErle = 10 * std::log10(power(mic, 3 * kRate, m) / power(out, 3 * kRate, m));
        }
        {
            auto c = make(150);
            const Signal mic = mix({&echo, &nearShifted}, static_cast<size_t>(m), noiseDb);
            const Signal out = run(*c, far16, mic, row.cost);
            row.speechDouble = nearChangeDb(out, nearShifted, 6 * kRate, m);
        }
        {
            auto c = make(0);
            const Signal mic = mix({&nearShifted}, static_cast<size_t>(m), noiseDb);
            const Signal out = run(*c, far16, mic, row.cost);
            row.speechNoEcho = nearChangeDb(out, nearShifted, 6 * kRate, m);
        }
    }
    return row;
}

}  // namespace

int main(int argc, char** argv) {
    Signal speechFar, speechNear;
    if (argc > 1) {
        speechFar = readWav(std::string(argv[1]) + "/far.wav");
        speechNear = readWav(std::string(argv[1]) + "/near.wav");
        if (speechFar.empty() || speechNear.empty()) std::fprintf(stderr, "no 16 kHz mono far.wav/near.wav in %s\n", argv[1]);
    }
    const char* only = std::getenv("ECHO_CANDIDATE");
    const bool verbose = std::getenv("ECHO_VERBOSE") != nullptr;
    using W = webrtc::EchoCancellation;
    const std::vector<std::pair<std::string, Factory>> candidates = {
        {"EchoCanceller (shipped)", [](int) { return std::make_unique<ShippedCandidate>(); }},
        {"speex 1024 taps, no alignment", [](int) { return std::make_unique<SpeexCandidate>(SpeexOptions{1024, false}); }},
        {"speex 6144 taps, no alignment", [](int) { return std::make_unique<SpeexCandidate>(SpeexOptions{6144, false}); }},
        {"aligned + speex 1024", [](int) { return std::make_unique<SpeexCandidate>(SpeexOptions{1024, true}); }},
        {"aligned + speex 2048", [](int) { return std::make_unique<SpeexCandidate>(SpeexOptions{2048, true}); }},
        {"aligned + speex 1024 + residual -40/-15", [](int) { return std::make_unique<SpeexCandidate>(SpeexOptions{1024, true, true, -40, -15}); }},
        {"aligned + speex 1024 + residual -20/-6", [](int) { return std::make_unique<SpeexCandidate>(SpeexOptions{1024, true, true, -20, -6}); }},
        {"webrtc told delay, ext, low", [](int d) { return std::make_unique<WebRtcCandidate>(WebRtcOptions{W::kLowSuppression, true, false, true}, d); }},
        {"webrtc told delay, ext, moderate", [](int d) { return std::make_unique<WebRtcCandidate>(WebRtcOptions{W::kModerateSuppression, true, false, true}, d); }},
        {"webrtc delay-agnostic, ext, moderate", [](int d) { return std::make_unique<WebRtcCandidate>(WebRtcOptions{W::kModerateSuppression, true, true, true}, d); }},
        {"aligned + webrtc ext, low", [](int d) { return std::make_unique<WebRtcCandidate>(WebRtcOptions{W::kLowSuppression, true, false, false}, d); }},
        {"webrtc aecm told delay", [](int d) { return std::make_unique<WebRtcCandidate>(WebRtcOptions{W::kLowSuppression, false, false, true, true}, d); }},
    };
    std::printf("%-42s %7s %7s %7s %7s | %7s %7s %7s | %8s %8s\n", "candidate", "erle", "alone", "double", "no-echo", "sp.erle",
                "sp.dbl", "sp.none", "ms/s", "x rt");
    for (const auto& [name, make] : candidates) {
        if (only && name.find(only) == std::string::npos) continue;
        const Row r = measure(make, speechFar, speechNear, verbose);
        const double msPerSecond = 1000 * r.cost.cpuSeconds / r.cost.audioSeconds;
        std::printf("%-42s %7.1f %7.2f %7.2f %7.2f | %7.1f %7.2f %7.2f | %8.2f %8.4f\n", name.c_str(), r.erle, r.alone, r.dbl, r.noEcho,
                    r.speechErle, r.speechDouble, r.speechNoEcho, msPerSecond, msPerSecond / 1000);
        std::fflush(stdout);
    }
}
