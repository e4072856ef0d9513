#include "Renderers/Tonebed/Brightness.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <utility>
#include <vector>

#include "Renderers/Tonebed/Arithmetic.hpp"

namespace quillmere::tonebed {
namespace {

constexpr std::size_t window = 1024;
constexpr std::size_t hop = 5003;     // never in step with the beat
constexpr std::size_t lowestBin = 1;  // 47 Hz: below lies no music
constexpr double fullBrightness = 5000;

/// A fast Fourier transform of `window` complex values, radix two, in place.
class Transform {
public:
    Transform() {
        for (std::size_t i = 0; i < window / 2; ++i) {
            const double turns = static_cast<double>(i) / static_cast<double>(window);
            cosines_[i] = cosine(turns);
            sines_[i] = sine(turns);
        }
    }

    void run(std::vector<double>& real, std::vector<double>& imaginary) const {
        for (std::size_t i = 1, j = 0; i < window; ++i) {
            std::size_t bit = window / 2;
            for (; (j & bit) != 0; bit /= 2) j ^= bit;
            j ^= bit;
            if (i >= j) continue;
            std::swap(real[i], real[j]);
            std::swap(imaginary[i], imaginary[j]);
        }
        for (std::size_t length = 2; length <= window; length *= 2) {
            const std::size_t stride = window / length;
            for (std::size_t start = 0; start < window; start += length) {
                for (std::size_t k = 0; k < length / 2; ++k) {
                    const std::size_t a = start + k;
                    const std::size_t b = a + length / 2;
                    const double c = cosines_[k * stride];
                    const double s = sines_[k * stride];
                    const double x = real[b] * c + imaginary[b] * s;
                    const double y = imaginary[b] * c - real[b] * s;
                    real[b] = real[a] - x;
                    imaginary[b] = imaginary[a] - y;
                    real[a] += x;
                    imaginary[a] += y;
                }
            }
        }
    }

private:
    std::array<double, window / 2> cosines_{};
    std::array<double, window / 2> sines_{};
};

}  // namespace

double brightnessOf(std::span<const float> left, std::span<const float> right) {
    const Transform transform;
    std::vector<double> hann(window);
    for (std::size_t i = 0; i < window; ++i) {
        hann[i] = 0.5 - 0.5 * cosine(static_cast<double>(i) / static_cast<double>(window));
    }
    std::vector<double> real(window);
    std::vector<double> imaginary(window);
    double weighted = 0;
    double total = 0;
    for (std::size_t start = 0; start + window <= left.size(); start += hop) {
        for (std::size_t i = 0; i < window; ++i) {
            const float both = left[start + i] + right[start + i];
            real[i] = hann[i] * static_cast<double>(both);
            imaginary[i] = 0;
        }
        transform.run(real, imaginary);
        for (std::size_t bin = lowestBin; bin < window / 2; ++bin) {
            const double magnitude = std::sqrt(real[bin] * real[bin] + imaginary[bin] * imaginary[bin]);
            weighted += magnitude * static_cast<double>(bin);
            total += magnitude;
        }
    }
    if (total <= 0) return 0;
    const double hertz = weighted / total * static_cast<double>(sampleRate) / static_cast<double>(window);
    return std::min(1.0, hertz / fullBrightness);
}

}  // namespace quillmere::tonebed
