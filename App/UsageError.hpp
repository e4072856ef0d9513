#pragma once

#include <stdexcept>
#include <string>
#include <utility>

namespace quillmere::app {

/// A command line that can be taken apart, but asks for what cannot be had: the program ends with `ExitCode::usage`.
class UsageError : public std::runtime_error {
public:
    /// The option or the argument ("--mood", "fingerprint"), and what is wrong with it: a sentence.
    UsageError(std::string option, const std::string& complaint)
        : std::runtime_error(complaint), option_(std::move(option)) {}

    /// What is wrong where no single option is to blame: a sentence.
    explicit UsageError(const std::string& complaint) : std::runtime_error(complaint) {}

    /// The option or the argument; empty where no single one is to blame.
    [[nodiscard]] const std::string& option() const noexcept { return option_; }

private:
    std::string option_;
};

}  // namespace quillmere::app
