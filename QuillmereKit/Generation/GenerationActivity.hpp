#pragma once

#include <cstdint>
#include <string>
#include <variant>

namespace quillmere {

/// What a renderer is doing between two reports. A plain value.
class GenerationActivity {
public:
    struct Waiting {
        std::int64_t seconds = 0;  ///< It rests and goes on in that many seconds.
        friend bool operator==(const Waiting&, const Waiting&) = default;
    };
    struct Loading {
        friend bool operator==(const Loading&, const Loading&) = default;
    };
    struct Running {
        friend bool operator==(const Running&, const Running&) = default;
    };

    GenerationActivity(Waiting value) : value_(value) {}  // NOLINT: converts on purpose
    GenerationActivity(Loading value) : value_(value) {}  // NOLINT
    GenerationActivity(Running value) : value_(value) {}  // NOLINT

    [[nodiscard]] bool isWaiting() const noexcept { return std::holds_alternative<Waiting>(value_); }
    [[nodiscard]] std::string label() const;
    [[nodiscard]] const auto& value() const noexcept { return value_; }

    friend bool operator==(const GenerationActivity&, const GenerationActivity&) = default;

private:
    std::variant<Waiting, Loading, Running> value_;
};

}  // namespace quillmere
