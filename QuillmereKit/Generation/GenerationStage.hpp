#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>

#include "QuillmereKit/Generation/GenerationActivity.hpp"

namespace quillmere {

/// How far a render has come. A plain value; equality by case and payload.
class GenerationStage {
public:
    /// Diffusion step `step` of `total`, without block detail.
    struct Sampling {
        std::int64_t step = 0;   ///< The present step, from 1.
        std::int64_t total = 0;  ///< Of how many.
        friend bool operator==(const Sampling&, const Sampling&) = default;
    };
    /// Encoding block `block` of `total`.
    struct EncodingBlock {
        std::int64_t block = 0;       ///< The present block, from 1.
        std::int64_t total = 0;       ///< Of how many.
        GenerationActivity activity;  ///< What the renderer is doing.
        friend bool operator==(const EncodingBlock&, const EncodingBlock&) = default;
    };
    /// Diffusion step `step` of `total` within block `block` of `blocks`.
    struct SamplingBlock {
        std::int64_t step = 0;        ///< The present step, from 1.
        std::int64_t total = 0;       ///< Of how many.
        std::int64_t block = 0;       ///< The present block, from 1.
        std::int64_t blocks = 0;      ///< Of how many.
        GenerationActivity activity;  ///< What the renderer is doing.
        friend bool operator==(const SamplingBlock&, const SamplingBlock&) = default;
    };
    /// Decoding window `window` of `windows` within block `block` of `blocks`.
    struct DecodingBlock {
        std::int64_t window = 0;      ///< The present window, from 1.
        std::int64_t windows = 0;     ///< Of how many.
        std::int64_t block = 0;       ///< The present block, from 1.
        std::int64_t blocks = 0;      ///< Of how many.
        GenerationActivity activity;  ///< What the renderer is doing.
        friend bool operator==(const DecodingBlock&, const DecodingBlock&) = default;
    };
    /// The model is being set up.
    struct Preparing {
        friend bool operator==(const Preparing&, const Preparing&) = default;
    };
    /// The prompt, text and guide audio, is being encoded.
    struct Encoding {
        friend bool operator==(const Encoding&, const Encoding&) = default;
    };
    /// The latent result is being decoded into audio.
    struct Decoding {
        friend bool operator==(const Decoding&, const Decoding&) = default;
    };
    /// The audio is being checked, measured and saved.
    struct Processing {
        friend bool operator==(const Processing&, const Processing&) = default;
    };
    /// The cases, in order.
    using Value =
        std::variant<Sampling, EncodingBlock, SamplingBlock, DecodingBlock, Preparing, Encoding, Decoding, Processing>;

    /// The stage of one of the cases.
    template <class Case>
    requires std::is_constructible_v<Value, Case> GenerationStage(Case value)
        : value_(std::move(value)) {}  // NOLINT: converts on purpose

    /// The stage that one line of a renderer's progress output names, or nothing. The line comes without its line
    /// end and is taken as it is: a blank before or after a whole-line form makes it unknown. The forms, a and b being
    /// decimal integers with 0 < a <= b, and ACTIVITY `loading`, `running` or `waiting n` with n from 1 to 5:
    ///
    ///     text encoder | audio encoder                encoding
    ///     decoder                                     decoding
    ///     sample a/b                                  sampling
    ///     progress encoding a/b ACTIVITY              encoding block
    ///     progress sampling a/b a/b ACTIVITY          sampling step, block
    ///     progress decoding a/b a/b ACTIVITY          decoding window, block
    ///
    /// Between the words of a `progress` line, and after the last, may stand any number of spaces.
    [[nodiscard]] static std::optional<GenerationStage> fromEngineLine(std::string_view line);

    /// One line for the user interface. Of the counters only the sampling step is shown.
    [[nodiscard]] std::string label() const;

    /// The case with its payload, for `std::visit` and `std::get_if`.
    [[nodiscard]] const Value& value() const noexcept { return value_; }

    friend bool operator==(const GenerationStage&, const GenerationStage&) = default;

private:
    Value value_;
};

}  // namespace quillmere
