#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <string_view>

#include "QuillmereKit/Moods/Anchor.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"

namespace quillmere {

class JSONWriter;

/// A position on the axis from a mood's calm end (0) to its energetic end (4).
///
/// A plain value. Made by the constructor the index lies in 0...4; only reading JSON takes any
/// integer as it stands. Ordered by index. An index so far off that its distance to a step overflows
/// stops the process where such a distance is asked for: in `position`, `label` and `byProximity`.
class BlendStep {
public:
    static constexpr int count = 5;    ///< Number of fine steps.
    static const BlendStep calm;       ///< Index 0.
    static const BlendStep energetic;  ///< Index 4.

    /// The five steps, in ascending order.
    [[nodiscard]] static const std::array<BlendStep, 5>& all() noexcept;

    /// The steps of the coarse control: indices 0, 1 and 4. Deliberately not evenly spread.
    [[nodiscard]] static const std::array<BlendStep, 3>& stops() noexcept;

    /// The calm end.
    constexpr BlendStep() noexcept = default;

    /// Clamped to 0...4.
    explicit constexpr BlendStep(std::int64_t index) noexcept : index_(index < 0 ? 0 : index > 4 ? 4 : index) {}

    /// The stop of the coarse control at `position`, 0.0 (calm) to 1.0 (energetic), halves rounded away from zero.
    /// A position that is not finite, or beyond the signed 64-bit range, stops the process.
    [[nodiscard]] static BlendStep atPosition(double position);

    /// A step with an index as read from data, not clamped.
    [[nodiscard]] static constexpr BlendStep unclamped(std::int64_t index) noexcept {
        BlendStep step;
        step.index_ = index;
        return step;
    }

    /// The position: 0 is the calm end, 4 the energetic end.
    [[nodiscard]] constexpr std::int64_t index() const noexcept { return index_; }

    /// The position of the nearest stop of the coarse control: 0.0, 0.5 or 1.0.
    [[nodiscard]] double position() const;

    /// The share of the energetic end in the blend: a quarter of the index, 0.0...1.0.
    [[nodiscard]] constexpr double weight() const noexcept { return static_cast<double>(index_) * 0.25; }

    /// The name of the nearest stop of the coarse control: "Calm", "Balanced" or "Energetic".
    [[nodiscard]] std::string_view label() const;

    /// The end that the step belongs to: calm below the middle, energetic from the middle on.
    [[nodiscard]] constexpr Anchor anchor() const noexcept { return weight() < 0.5 ? Anchor::calm : Anchor::energetic; }

    /// Whether the step is one of the two ends.
    [[nodiscard]] constexpr bool isAnchor() const noexcept { return index_ == 0 || index_ == 4; }

    /// All five steps, nearest to this one first; of two equally near the lower first.
    [[nodiscard]] std::array<BlendStep, 5> byProximity() const;

    friend constexpr auto operator<=>(const BlendStep&, const BlendStep&) = default;

private:
    std::int64_t index_ = 0;
};

inline constexpr BlendStep BlendStep::calm{0};
inline constexpr BlendStep BlendStep::energetic{4};

/// {"index": integer}
void encode(JSONWriter& writer, const BlendStep& step);
template <>
BlendStep decode<BlendStep>(const JSONValue& value);

}  // namespace quillmere

template <>
struct std::hash<quillmere::BlendStep> {
    std::size_t operator()(const quillmere::BlendStep& step) const noexcept {
        return std::hash<std::int64_t>{}(step.index());
    }
};
