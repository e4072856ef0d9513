#pragma once

#include <string>

namespace quillmere::app {

/// A check of an option's text: a number from `least` to `most`. Unlike the command line library's own check it refuses
/// what is no number and compares false with everything.
class NumberBetween {
public:
    NumberBetween(double least, double most) : least_(least), most_(most) {}

    /// Empty where the text is such a number, else what is wrong with it.
    std::string operator()(const std::string& text) const;

private:
    double least_;
    double most_;
};

}  // namespace quillmere::app
