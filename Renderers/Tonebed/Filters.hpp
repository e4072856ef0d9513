#pragma once

#include "Renderers/Tonebed/Arithmetic.hpp"

namespace quillmere::tonebed {

/// A filter of 6 dB an octave.
class OnePole {
public:
    /// `hertz` up to about 20,000.
    explicit OnePole(double hertz) noexcept { tune(hertz); }

    void tune(double hertz) noexcept {
        kept_ = powerOfTwo(-9.064720283654388 * hertz / static_cast<double>(sampleRate));  // e^(-2πf/rate)
        taken_ = 1 - kept_;
    }

    double lowpass(double x) noexcept { return state_ = kept_ * state_ + taken_ * x; }
    double highpass(double x) noexcept { return x - lowpass(x); }

private:
    double kept_ = 0;
    double taken_ = 1;
    double state_ = 0;
};

/// A lowpass or bandpass of 12 dB an octave that may be tuned while it runs: the state variable filter in its
/// topology-preserving form (V. Zavalishin, "The Art of VA Filter Design", 2012, chapter 4).
class StateVariable {
public:
    /// `hertz` below 20,000; `damping` 2 for no resonance, smaller for more.
    void tune(double hertz, double damping) noexcept {
        const double turns = clamped(hertz, 10, 20000) / static_cast<double>(sampleRate) * 0.5;
        const double g = sine(turns) / cosine(turns);
        const double a = 1 / (1 + g * (g + damping));
        first_ = static_cast<float>(a);
        second_ = static_cast<float>(g * a);
        third_ = static_cast<float>(g * g * a);
    }

    float lowpass(float x) noexcept {
        step(x);
        return low_;
    }
    /// The band, of the gain 1/damping in its middle.
    float bandpass(float x) noexcept {
        step(x);
        return band_;
    }

private:
    void step(float x) noexcept {
        const float rest = x - lowState_;
        band_ = first_ * bandState_ + second_ * rest;
        low_ = lowState_ + second_ * bandState_ + third_ * rest;
        bandState_ = 2 * band_ - bandState_;
        lowState_ = 2 * low_ - lowState_;
    }

    float first_ = 1;
    float second_ = 0;
    float third_ = 0;
    float bandState_ = 0;
    float lowState_ = 0;
    float band_ = 0;
    float low_ = 0;
};

}  // namespace quillmere::tonebed
