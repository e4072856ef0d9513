#include "Renderers/Tonebed/Loudness.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <vector>

namespace quillmere::tonebed {
namespace {

constexpr std::size_t subBlockFrames = 4800;            // 100 ms
constexpr double absoluteGate = 1.1724653045822981e-7;  // -70 LUFS

/// ITU-R BS.1770-4, annex 1, tables 1 and 2, for 48 kHz: the shelf of the head, then the highpass.
struct KFilter {
    double z[4] = {};

    double operator()(double x) noexcept {
        const double y = 1.53512485958697 * x + z[0];
        z[0] = -2.69169618940638 * x + 1.69065929318241 * y + z[1];
        z[1] = 1.19839281085285 * x - 0.73248077421585 * y;
        const double v = y + z[2];
        z[2] = -2.0 * y + 1.99004745483398 * v + z[3];
        z[3] = y - 0.99007225036621 * v;
        return v;
    }
};

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

double gatedEnergy(std::span<const float> left, std::span<const float> right) {
    std::vector<double> subBlocks;
    KFilter leftFilter;
    KFilter rightFilter;
    double sum = 0;
    std::size_t inBlock = 0;
    for (std::size_t i = 0; i < left.size(); ++i) {
        const double l = leftFilter(static_cast<double>(left[i]));
        const double r = rightFilter(static_cast<double>(right[i]));
        sum += l * l + r * r;
        if (++inBlock == subBlockFrames) {
            subBlocks.push_back(sum / static_cast<double>(subBlockFrames));
            sum = 0;
            inBlock = 0;
        }
    }
    if (subBlocks.size() < 4) {
        double whole = sum;
        for (const double energy : subBlocks) whole += energy * static_cast<double>(subBlockFrames);
        return left.empty() ? 0 : whole / static_cast<double>(left.size());
    }
    std::vector<double> blocks;
    for (std::size_t i = 3; i < subBlocks.size(); ++i) {
        blocks.push_back((subBlocks[i - 3] + subBlocks[i - 2] + subBlocks[i - 1] + subBlocks[i]) * 0.25);
    }
    // The relative gate lies 10 dB below the mean of what passes the absolute one.
    const double first = meanAbove(blocks, absoluteGate);
    return meanAbove(blocks, std::max(absoluteGate, first * 0.1));
}

}  // namespace quillmere::tonebed
