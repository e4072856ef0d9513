#include "QuillmereKit/Library/LoudnessMeter.hpp"

#include <algorithm>
#include <bit>
#include <cfloat>
#include <cmath>

#include "QuillmereKit/Platform/Precondition.hpp"

#ifdef __SSE2__
#include <emmintrin.h>
#endif

// Every product, sum and difference below is rounded to double once, in the order written; the build turns contraction
// off for this file, and excess precision would break the promise too.
static_assert(FLT_EVAL_METHOD == 0);

namespace quillmere {
namespace {

// K-weighting at 48 kHz: ITU-R BS.1770-4, annex 1, tables 1 and 2.
constexpr double shelfB0 = 1.53512485958697, shelfB1 = -2.69169618940638, shelfB2 = 1.19839281085285;
constexpr double shelfA1 = -1.69065929318241, shelfA2 = 0.73248077421585;
constexpr double highpassB1 = -2.0;  // b0 and b2 are 1
constexpr double highpassA1 = -1.99004745483398, highpassA2 = 0.99007225036621;

constexpr double framesPerSecond = 48'000;
constexpr std::int64_t subBlockFrames = 4'800;            // 100 ms
constexpr double absoluteGate = 1.1724653045822981e-7;    // the energy of -70 LUFS: 10^((-70 + 0.691) / 10)
constexpr double relativeGate = 0.1;                      // 10 dB below the mean
constexpr std::uint32_t infinityMagnitude = 0x7f80'0000;  // smallest magnitude that is not finite
constexpr double energyOffset = 0.691;                    // LUFS = 10 log10(energy) - 0.691

// The bits of |sample|: ordered as the absolute values are, non-finite ones last.
std::uint32_t magnitude(float sample) noexcept { return std::bit_cast<std::uint32_t>(sample) & 0x7fff'ffff; }

// The absolute value with these bits, exact even on a thread that takes subnormal numbers for zero.
double absoluteValue(std::uint32_t finiteMagnitude) noexcept {
    constexpr std::uint32_t smallestNormal = 0x0080'0000;
    if (finiteMagnitude < smallestNormal) return static_cast<double>(finiteMagnitude) * 0x1p-149;
    return static_cast<double>(std::bit_cast<float>(finiteMagnitude));
}

// The filters run on lanes, a lane a channel, so that both channels of a frame are one operation where the processor
// has one.
class Mono {
public:
    static constexpr std::size_t count = 1;

    Mono(double value) noexcept : value_(value) {}  // NOLINT: converts on purpose
    static Mono fromFrame(const float* frame) noexcept { return frame[0]; }
    static Mono load(const std::array<double, 2>& values) noexcept { return values[0]; }
    void store(std::array<double, 2>& values) const noexcept { values[0] = value_; }

    [[nodiscard]] double sumOfSquares() const noexcept { return value_ * value_; }
    friend Mono operator+(Mono a, Mono b) noexcept { return a.value_ + b.value_; }
    friend Mono operator-(Mono a, Mono b) noexcept { return a.value_ - b.value_; }
    friend Mono operator*(Mono a, Mono b) noexcept { return a.value_ * b.value_; }

private:
    double value_;
};

#ifdef __SSE2__

class Stereo {
public:
    static constexpr std::size_t count = 2;

    Stereo(double value) noexcept : value_(_mm_set1_pd(value)) {}  // NOLINT: converts on purpose
    static Stereo fromFrame(const float* frame) noexcept {
        return _mm_cvtps_pd(_mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(frame))));
    }
    static Stereo load(const std::array<double, 2>& values) noexcept { return _mm_loadu_pd(values.data()); }
    void store(std::array<double, 2>& values) const noexcept { _mm_storeu_pd(values.data(), value_); }

    [[nodiscard]] double sumOfSquares() const noexcept {
        const __m128d squares = _mm_mul_pd(value_, value_);
        return _mm_cvtsd_f64(squares) + _mm_cvtsd_f64(_mm_unpackhi_pd(squares, squares));
    }
    friend Stereo operator+(Stereo a, Stereo b) noexcept { return _mm_add_pd(a.value_, b.value_); }
    friend Stereo operator-(Stereo a, Stereo b) noexcept { return _mm_sub_pd(a.value_, b.value_); }
    friend Stereo operator*(Stereo a, Stereo b) noexcept { return _mm_mul_pd(a.value_, b.value_); }

private:
    Stereo(__m128d value) noexcept : value_(value) {}  // NOLINT
    __m128d value_;
};

// Makes results too small for a normal double zero while it lives. After a sound ends, the filters' state decays into
// the subnormal numbers, where processors work many times slower.
//
// No measurement changes by it. What flushing alters stays below 1e-270, in state and in energy. A sample that is not
// zero is above 1e-45 and adds to either of them nothing or more than 1e-160, where such a difference rounds away. And
// where no such sample comes, the energy is far below the gate anyway.
//
// Subnormal input counts as it is and every operation rounds to nearest, whatever the thread had set.
class FlushToZero {
public:
    FlushToZero() noexcept : saved_(_mm_getcsr()) { _mm_setcsr(allMasked | flush); }
    ~FlushToZero() { _mm_setcsr(saved_); }
    FlushToZero(const FlushToZero&) = delete;
    FlushToZero& operator=(const FlushToZero&) = delete;

private:
    static constexpr unsigned allMasked = 0x1f80;
    static constexpr unsigned flush = 0x8000;
    const unsigned saved_;
};

#else

class Stereo {
public:
    static constexpr std::size_t count = 2;

    Stereo(double value) noexcept : Stereo(value, value) {}  // NOLINT: converts on purpose
    static Stereo fromFrame(const float* frame) noexcept { return {frame[0], frame[1]}; }
    static Stereo load(const std::array<double, 2>& values) noexcept { return {values[0], values[1]}; }
    void store(std::array<double, 2>& values) const noexcept { values = {left_, right_}; }

    [[nodiscard]] double sumOfSquares() const noexcept { return left_ * left_ + right_ * right_; }
    friend Stereo operator+(Stereo a, Stereo b) noexcept { return {a.left_ + b.left_, a.right_ + b.right_}; }
    friend Stereo operator-(Stereo a, Stereo b) noexcept { return {a.left_ - b.left_, a.right_ - b.right_}; }
    friend Stereo operator*(Stereo a, Stereo b) noexcept { return {a.left_ * b.left_, a.right_ * b.right_}; }

private:
    Stereo(double left, double right) noexcept : left_(left), right_(right) {}
    double left_, right_;
};

struct FlushToZero {
    FlushToZero() noexcept {}
};

#endif

}  // namespace

LoudnessMeter::LoudnessMeter(int channels) : channels_(channels) {
    precondition(channels == 1 || channels == 2, "a loudness meter has 1 or 2 channels");
}

void LoudnessMeter::append(std::span<const float> interleaved) { append(interleaved, channels_); }

void LoudnessMeter::append(std::span<const float> interleaved, int channelCount) {
    precondition(channelCount == channels_, "the buffer's channel count is the loudness meter's");
    precondition(interleaved.size() % static_cast<std::size_t>(channels_) == 0, "the buffer holds whole frames");
    if (!isValid_) return;

    const std::uint32_t largest = channels_ == 1 ? measure<Mono>(interleaved) : measure<Stereo>(interleaved);
    if (largest >= infinityMagnitude) {
        invalidate(interleaved);
        return;
    }
    peak_ = std::max(peak_, absoluteValue(largest));
    frames_ += static_cast<std::int64_t>(interleaved.size()) / channels_;
}

// Takes all samples into the blocks; returns the largest magnitude among them.
template <class Lanes>
std::uint32_t LoudnessMeter::measure(std::span<const float> interleaved) {
    const FlushToZero flushToZero;
    std::uint32_t largest = 0;
    while (!interleaved.empty()) {
        const auto room = static_cast<std::size_t>(subBlockFrames - partialFrames_) * Lanes::count;
        const auto run = interleaved.first(std::min(room, interleaved.size()));
        largest = std::max(largest, filter<Lanes>(run));
        partialFrames_ += static_cast<std::int64_t>(run.size() / Lanes::count);
        if (partialFrames_ == subBlockFrames) endSubBlock();
        interleaved = interleaved.subspan(run.size());
    }
    return largest;
}

// Adds the energy of samples that lie in one sub-block. The state is kept in registers: the loop calls nothing, and the
// only chain from one frame to the next is a filter's own.
template <class Lanes>
std::uint32_t LoudnessMeter::filter(std::span<const float> interleaved) {
    Lanes shelfZ1 = Lanes::load(shelf_.z1), shelfZ2 = Lanes::load(shelf_.z2);
    Lanes highpassZ1 = Lanes::load(highpass_.z1), highpassZ2 = Lanes::load(highpass_.z2);
    double energy = partialEnergy_;
    std::uint32_t largest = 0;

    const float* const end = interleaved.data() + interleaved.size();
    for (const float* frame = interleaved.data(); frame != end; frame += Lanes::count) {
        for (std::size_t channel = 0; channel < Lanes::count; ++channel) {
            largest = std::max(largest, magnitude(frame[channel]));
        }
        const Lanes x = Lanes::fromFrame(frame);
        const Lanes w = shelfB0 * x + shelfZ1;
        shelfZ1 = shelfB1 * x - shelfA1 * w + shelfZ2;
        shelfZ2 = shelfB2 * x - shelfA2 * w;
        const Lanes y = w + highpassZ1;
        highpassZ1 = highpassB1 * w - highpassA1 * y + highpassZ2;
        highpassZ2 = w - highpassA2 * y;
        energy += y.sumOfSquares();
    }

    shelfZ1.store(shelf_.z1);
    shelfZ2.store(shelf_.z2);
    highpassZ1.store(highpass_.z1);
    highpassZ2.store(highpass_.z2);
    partialEnergy_ = energy;
    return largest;
}

void LoudnessMeter::endSubBlock() {
    if (recentCount_ == recent_.size()) {
        std::shift_left(recent_.begin(), recent_.end(), 1);
        --recentCount_;
    }
    recent_[recentCount_++] = partialEnergy_ / static_cast<double>(subBlockFrames);
    if (recentCount_ == recent_.size()) {
        blocks_.push_back((recent_[0] + recent_[1] + recent_[2] + recent_[3]) * 0.25);
    }
    partialEnergy_ = 0;
    partialFrames_ = 0;
}

// Counts what comes before the first sample that is not finite. The filters' state does not matter any more.
void LoudnessMeter::invalidate(std::span<const float> interleaved) {
    std::int64_t good = 0;
    for (const float sample : interleaved) {
        if (magnitude(sample) >= infinityMagnitude) break;
        peak_ = std::max(peak_, absoluteValue(magnitude(sample)));
        ++good;
    }
    frames_ += good / channels_;
    isValid_ = false;
}

std::optional<AudioLoudness> LoudnessMeter::measurement() const {
    if (!isValid_) return std::nullopt;
    const auto meanAbove = [this](double gate) -> std::optional<double> {
        double sum = 0;
        std::int64_t count = 0;
        for (const double block : blocks_) {
            if (block > absoluteGate && block > gate) {
                sum += block;
                ++count;
            }
        }
        if (count == 0) return std::nullopt;
        return sum / static_cast<double>(count);
    };

    AudioLoudness loudness{
        .integratedLUFS = {}, .peak = peak_, .seconds = static_cast<double>(frames_) / framesPerSecond};
    if (const auto mean = meanAbove(absoluteGate)) {
        if (const auto gated = meanAbove(*mean * relativeGate)) {
            loudness.integratedLUFS = 10 * std::log10(*gated) - energyOffset;
        }
    }
    return loudness;
}

}  // namespace quillmere
