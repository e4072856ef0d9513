#include "Renderers/Tonebed/Reverb.hpp"

#include <algorithm>
#include <bit>

#include "Renderers/Tonebed/Arithmetic.hpp"

namespace quillmere::tonebed {
namespace {

constexpr auto rate = static_cast<double>(sampleRate);
// Without common divisors, so that echoes of different lines seldom meet.
constexpr std::array<std::size_t, 8> lineFrames = {1423, 1637, 1879, 2131, 2389, 2693, 3023, 3391};
constexpr std::array<std::array<std::size_t, 4>, 2> diffuserFrames = {{{229, 331, 467, 601}, {251, 349, 439, 617}}};
constexpr float diffusion = 0.62f;

}  // namespace

DelayLine::DelayLine(std::size_t longest) : ring_(std::bit_ceil(longest + blockFrames + 2), 0.0f) {}

void DelayLine::read(float* values, std::size_t delay, std::size_t count) const noexcept {
    const std::size_t start = (next_ - delay) & (ring_.size() - 1);
    const std::size_t first = std::min(count, ring_.size() - start);
    std::copy_n(ring_.data() + start, first, values);
    std::copy_n(ring_.data(), count - first, values + first);
}

void DelayLine::write(const float* values, std::size_t count) noexcept {
    const std::size_t first = std::min(count, ring_.size() - next_);
    std::copy_n(values, first, ring_.data() + next_);
    std::copy_n(values + first, count - first, ring_.data());
    next_ = (next_ + count) & (ring_.size() - 1);
}

float DelayLine::at(float delay) const noexcept {
    const auto whole = static_cast<std::size_t>(static_cast<std::int32_t>(delay));
    const float rest = delay - static_cast<float>(static_cast<std::int32_t>(whole));
    const float near = ring_[(next_ - whole) & (ring_.size() - 1)];
    const float far = ring_[(next_ - whole - 1) & (ring_.size() - 1)];
    return near + rest * (far - near);
}

Reverb::Reverb(double seconds, double damping, double size)
    : damping_(static_cast<float>(0.05 + 0.2 * damping)), earlyDelay_(static_cast<std::size_t>(rate * 0.018 * size)) {
    for (std::size_t i = 0; i < lines; ++i) {
        delays_[i] = static_cast<std::size_t>(nearest(static_cast<double>(lineFrames[i]) * size));
        lines_.emplace_back(delays_[i] + 1);
        // -60 dB after `seconds`, of which this line's delay is a part.
        gains_[i] = static_cast<float>(gainOf(-60 * static_cast<double>(delays_[i]) / (rate * seconds)));
    }
    for (std::size_t side = 0; side < 2; ++side) {
        for (const std::size_t frames : diffuserFrames[side]) diffusers_[side].push_back({DelayLine(frames), frames});
        early_.emplace_back(std::max(earlyDelay_, blockFrames));
    }
    earlyDelay_ = std::max(earlyDelay_, blockFrames);
}

void Reverb::diffuse(Channel& channel, std::vector<Diffuser>& diffusers, std::size_t count) noexcept {
    Channel past;
    Channel next;
    for (Diffuser& diffuser : diffusers) {
        diffuser.line.read(past.data(), diffuser.delay, count);
        for (std::size_t i = 0; i < count; ++i) {
            const float out = past[i] - diffusion * channel[i];
            next[i] = channel[i] + diffusion * out;
            channel[i] = out;
        }
        diffuser.line.write(next.data(), count);
    }
}

void Reverb::process(const Block& input, Block& output, std::size_t count) noexcept {
    std::array<Channel, 2> entering;
    for (std::size_t side = 0; side < 2; ++side) {
        const Channel& source = side == 0 ? input.left : input.right;
        early_[side].read(entering[side].data(), earlyDelay_, count);
        early_[side].write(source.data(), count);
    }
    for (std::size_t i = 0; i < count; ++i) {
        entering[0][i] = static_cast<float>(rumble_[0].highpass(static_cast<double>(entering[0][i])));
        entering[1][i] = static_cast<float>(rumble_[1].highpass(static_cast<double>(entering[1][i])));
    }
    diffuse(entering[0], diffusers_[0], count);
    diffuse(entering[1], diffusers_[1], count);

    std::array<Channel, lines> values;
    std::array<float, blockFrames + 2> past;
    const float centre = 1 - 2 * damping_;
    for (std::size_t line = 0; line < lines; ++line) {
        lines_[line].read(past.data(), delays_[line] + 1, count + 2);
        Channel& out = values[line];
        const float gain = gains_[line];
        // Three neighbours mixed: the treble cancels out, the bass stays, and the delay is the same for all.
        for (std::size_t i = 0; i < count; ++i) {
            out[i] = gain * (centre * past[i + 1] + damping_ * (past[i] + past[i + 2]));
        }
    }
    for (std::size_t i = 0; i < count; ++i) {
        output.left[i] += 0.5f * ((values[0][i] - values[2][i]) + (values[4][i] + values[6][i]));
        output.right[i] += 0.5f * ((values[1][i] - values[3][i]) + (values[5][i] + values[7][i]));
    }
    for (std::size_t half = 1; half < lines; half *= 2) {
        for (std::size_t line = 0; line < lines; ++line) {
            if ((line & half) != 0) continue;
            Channel& a = values[line];
            Channel& b = values[line + half];
            for (std::size_t i = 0; i < count; ++i) {
                const float sum = a[i] + b[i];
                b[i] = a[i] - b[i];
                a[i] = sum;
            }
        }
    }
    constexpr float unity = 0.35355338f;  // 1/√8: the matrix neither adds nor takes power
    for (std::size_t line = 0; line < lines; ++line) {
        Channel& value = values[line];
        const Channel& side = entering[line % 2];
        for (std::size_t i = 0; i < count; ++i) value[i] = unity * value[i] + 0.5f * side[i];
        lines_[line].write(value.data(), count);
    }
}

}  // namespace quillmere::tonebed
