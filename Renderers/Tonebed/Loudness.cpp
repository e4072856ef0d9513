#include "Renderers/Tonebed/Loudness.hpp"

#include <algorithm>

namespace quillmere::tonebed {
namespace {

constexpr std::size_t subBlockFrames = 4800;            // 100 ms
constexpr double absoluteGate = 1.1724653045822981e-7;  // -70 LUFS

double meanAbove(const std::vector<double>& blocks, double gate) {
    double sum = 0;
    std::size_t count = 0;
    for (const double energy : blocks) {
        if (energy <= gate) continue;
        sum += energy;
        ++count;
    }
    return count == 0 ? 0 : sum / static_cast<double>(count);
}

}  // namespace

// ITU-R BS.1770-4, annex 1, tables 1 and 2, for 48 kHz: the shelf of the head, then the highpass.
inline double EnergyMeter::KFilter::operator()(double x) noexcept {
    const double y = 1.53512485958697 * x + z[0];
    z[0] = -2.69169618940638 * x + 1.69065929318241 * y + z[1];
    z[1] = 1.19839281085285 * x - 0.73248077421585 * y;
    const double v = y + z[2];
    z[2] = -2.0 * y + 1.99004745483398 * v + z[3];
    z[3] = y - 0.99007225036621 * v;
    return v;
}

void EnergyMeter::append(std::span<const float> left, std::span<const float> right) {
    KFilter leftFilter = left_;
    KFilter rightFilter = right_;
    for (std::size_t i = 0; i < left.size(); ++i) {
        const double l = leftFilter(static_cast<double>(left[i]));
        const double r = rightFilter(static_cast<double>(right[i]));
        sum_ += l * l + r * r;
        if (++inSubBlock_ == subBlockFrames) {
            subBlocks_.push_back(sum_ / static_cast<double>(subBlockFrames));
            sum_ = 0;
            inSubBlock_ = 0;
        }
    }
    left_ = leftFilter;
    right_ = rightFilter;
}

double EnergyMeter::energy() const {
    if (subBlocks_.size() < 4) {
        const std::size_t frames = subBlocks_.size() * subBlockFrames + inSubBlock_;
        double whole = sum_;
        for (const double energy : subBlocks_) whole += energy * static_cast<double>(subBlockFrames);
        return frames == 0 ? 0 : whole / static_cast<double>(frames);
    }
    std::vector<double> blocks;
    for (std::size_t i = 3; i < subBlocks_.size(); ++i) {
        blocks.push_back((subBlocks_[i - 3] + subBlocks_[i - 2] + subBlocks_[i - 1] + subBlocks_[i]) * 0.25);
    }
    // The relative gate lies 10 dB below the mean of what passes the absolute one.
    const double first = meanAbove(blocks, absoluteGate);
    return meanAbove(blocks, std::max(absoluteGate, first * 0.1));
}

double gatedEnergy(std::span<const float> left, std::span<const float> right) {
    EnergyMeter meter;
    meter.append(left, right);
    return meter.energy();
}

}  // namespace quillmere::tonebed
