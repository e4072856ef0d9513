#include "Renderers/Tonebed/Arithmetic.hpp"

#include <array>
#include <bit>

namespace quillmere::tonebed {
namespace {

constexpr double twoPi = 6.283185307179586;
constexpr double naturalOfTwo = 0.6931471805599453;

// 1/(n(n+1)) for n = 20, 18 ... 2, and 1/n for n = 14, 13 ... 1: the series from the inside out.
constexpr std::array<double, 10> sineFactors = {1.0 / 420, 1.0 / 342, 1.0 / 272, 1.0 / 210, 1.0 / 156,
                                                1.0 / 110, 1.0 / 72,  1.0 / 42,  1.0 / 20,  1.0 / 6};
constexpr std::array<double, 14> powerFactors = {1.0 / 14, 1.0 / 13, 1.0 / 12, 1.0 / 11, 1.0 / 10, 1.0 / 9, 1.0 / 8,
                                                 1.0 / 7,  1.0 / 6,  1.0 / 5,  1.0 / 4,  1.0 / 3,  1.0 / 2, 1.0};

// The Taylor series of sin x, good to the last bits for |x| up to π/2.
double sineOfSmall(double x) noexcept {
    const double s = x * x;
    double sum = 1;
    for (const double factor : sineFactors) sum = 1 - s * factor * sum;
    return x * sum;
}

}  // namespace

double sine(double turns) noexcept {
    double t = turns - static_cast<double>(nearest(turns));
    if (t > 0.25) t = 0.5 - t;
    if (t < -0.25) t = -0.5 - t;
    return sineOfSmall(twoPi * t);
}

double cosine(double turns) noexcept { return sine(turns + 0.25); }

double powerOfTwo(double x) noexcept {
    const std::int64_t whole = nearest(x);
    const double y = (x - static_cast<double>(whole)) * naturalOfTwo;
    double sum = 1;
    for (const double factor : powerFactors) sum = 1 + y * factor * sum;
    return sum * std::bit_cast<double>(static_cast<std::uint64_t>(whole + 1023) << 52);
}

double logarithm(double x) noexcept {
    const auto bits = std::bit_cast<std::uint64_t>(x);
    auto exponent = static_cast<std::int64_t>(bits >> 52) - 1023;
    double mantissa = std::bit_cast<double>((bits & 0xfffffffffffffULL) | 0x3ff0000000000000ULL);
    if (mantissa > 1.4142135623730951) {
        mantissa *= 0.5;
        ++exponent;
    }
    // ln m = 2 artanh((m-1)/(m+1)).
    const double q = (mantissa - 1) / (mantissa + 1);
    const double s = q * q;
    double sum = 0;
    for (int n = 25; n >= 1; n -= 2) sum = sum * s + 1 / static_cast<double>(n);
    return static_cast<double>(exponent) + 2 * q * sum / naturalOfTwo;
}

}  // namespace quillmere::tonebed
