#include "Renderers/Tonebed/Waveform.hpp"

#include <algorithm>
#include <cmath>

#include "Renderers/Tonebed/Arithmetic.hpp"

namespace quillmere::tonebed {
namespace {

constexpr double lowestHertz = 40;
constexpr std::size_t octaves = 8;
// Below half the rate with room for vibrato.
constexpr double highestHertz = 19000;

const std::vector<double>& sineTable() {
    static const std::vector<double> table = [] {
        std::vector<double> values(Waveform::tableSize);
        for (std::size_t i = 0; i < values.size(); ++i) {
            values[i] = sine(static_cast<double>(i) / static_cast<double>(values.size()));
        }
        return values;
    }();
    return table;
}

}  // namespace

Waveform::Waveform(const Spectrum& spectrum) : tables_(octaves) {
    const std::vector<double>& sines = sineTable();
    double hertz = lowestHertz;
    std::vector<double> sum(tableSize);
    for (auto& table : tables_) {
        std::ranges::fill(sum, 0.0);
        double power = 0;
        // A table serves an octave: its highest tone decides what fits, its middle how it sounds.
        const auto fitting = static_cast<int>(wholeBelow(highestHertz / (2 * hertz)));
        for (int harmonic = 1; harmonic <= std::min(fitting, mostHarmonics); ++harmonic) {
            const double amplitude = spectrum(harmonic, hertz * 1.4142135623730951);
            if (amplitude == 0) continue;
            power += amplitude * amplitude;
            for (std::size_t i = 0; i < tableSize; ++i) {
                sum[i] += amplitude * sines[(i * static_cast<std::size_t>(harmonic)) % tableSize];
            }
        }
        const double scale = power > 0 ? 1 / std::sqrt(power) : 0;
        for (std::size_t i = 0; i < tableSize; ++i) table[i] = static_cast<float>(sum[i] * scale);
        table[tableSize] = table[0];
        hertz *= 2;
    }
}

const float* Waveform::table(double hertz) const noexcept {
    std::size_t octave = 0;
    double top = lowestHertz * 2;
    while (octave + 1 < tables_.size() && hertz > top) {
        top *= 2;
        ++octave;
    }
    return tables_[octave].data();
}

std::uint32_t phaseStep(double hertz) noexcept {
    return static_cast<std::uint32_t>(nearest(hertz * (4294967296.0 / static_cast<double>(sampleRate))));
}

}  // namespace quillmere::tonebed
