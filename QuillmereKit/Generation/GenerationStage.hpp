#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "QuillmereKit/Generation/GenerationActivity.hpp"

namespace quillmere {

/// How far a render has come. A plain value; equality by case and payload.
class GenerationStage {
public:
    struct Sampling {
        std::int64_t step = 0, total = 0;
        friend bool operator==(const Sampling&, const Sampling&) = default;
    };
    struct EncodingBlock {
        std::int64_t block = 0, total = 0;
        GenerationActivity activity;
        friend bool operator==(const EncodingBlock&, const EncodingBlock&) = default;
    };
    struct SamplingBlock {
        std::int64_t step = 0, total = 0, block = 0, blocks = 0;
        GenerationActivity activity;
        friend bool operator==(const SamplingBlock&, const SamplingBlock&) = default;
    };
    struct DecodingBlock {
        std::int64_t window = 0, windows = 0, block = 0, blocks = 0;
        GenerationActivity activity;
        friend bool operator==(const DecodingBlock&, const DecodingBlock&) = default;
    };
    struct Preparing {
        friend bool operator==(const Preparing&, const Preparing&) = default;
    };
    struct Encoding {
        friend bool operator==(const Encoding&, const Encoding&) = default;
    };
    struct Decoding {
        friend bool operator==(const Decoding&, const Decoding&) = default;
    };
    struct Processing {
        friend bool operator==(const Processing&, const Processing&) = default;
    };
    using Value =
        std::variant<Sampling, EncodingBlock, SamplingBlock, DecodingBlock, Preparing, Encoding, Decoding, Processing>;

    template <class Case>
    requires std::is_constructible_v<Value, Case> GenerationStage(Case value)
        : value_(std::move(value)) {}  // NOLINT: converts on purpose

    /// The stage that one line of a renderer's progress output names, or nothing.
    [[nodiscard]] static std::optional<GenerationStage> fromEngineLine(std::string_view line);

    /// One line for the user interface.
    [[nodiscard]] std::string label() const;
    [[nodiscard]] const Value& value() const noexcept { return value_; }

    friend bool operator==(const GenerationStage&, const GenerationStage&) = default;

private:
    Value value_;
};

}  // namespace quillmere
