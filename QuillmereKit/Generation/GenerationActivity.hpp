#pragma once

#include <cstdint>
#include <string>
#include <variant>

namespace quillmere {

/// What a renderer is doing between two reports. A plain value; equality by case and payload.
class GenerationActivity {
public:
    /// The renderer is resting between two blocks.
    struct Waiting {
        std::int64_t seconds = 0;  ///< It goes on in that many seconds.
        friend bool operator==(const Waiting&, const Waiting&) = default;
    };
    /// The model's files are being loaded.
    struct Loading {
        friend bool operator==(const Loading&, const Loading&) = default;
    };
    /// The model is computing.
    struct Running {
        friend bool operator==(const Running&, const Running&) = default;
    };
    /// The cases, in order.
    using Value = std::variant<Waiting, Loading, Running>;

    /// It rests.
    GenerationActivity(Waiting value) : value_(value) {}  // NOLINT: converts on purpose
    /// It loads model files.
    GenerationActivity(Loading value) : value_(value) {}  // NOLINT
    /// It computes.
    GenerationActivity(Running value) : value_(value) {}  // NOLINT

    /// Whether it rests.
    [[nodiscard]] bool isWaiting() const noexcept { return std::holds_alternative<Waiting>(value_); }

    /// One line for the user interface.
    [[nodiscard]] std::string label() const;

    /// The case with its payload, for `std::visit` and `std::get_if`.
    [[nodiscard]] const Value& value() const noexcept { return value_; }

    friend bool operator==(const GenerationActivity&, const GenerationActivity&) = default;

private:
    Value value_;
};

}  // namespace quillmere
