#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "QuillmereKit/Platform/JSONReader.hpp"

namespace quillmere {

class JSONWriter;

/// How much music to keep before it repeats: a number of minutes, 1 to 1440, or unlimited. A plain value.
class Horizon {
public:
    /// Size of one minute of 48 kHz, two-channel, 16-bit audio in units of 2^20 bytes.
    static constexpr double megabytesPerMinute = 10.986328125;

    static const Horizon twentyMinutes;  ///< 20 minutes.
    static const Horizon oneHour;        ///< 60 minutes.
    static const Horizon threeHours;     ///< 180 minutes.
    static const Horizon unlimited;      ///< No limit.

    /// What the settings offer, in their order: 5, 10, 20, 30, 60, 120, 180 minutes, unlimited.
    [[nodiscard]] static const std::array<Horizon, 8>& allCases() noexcept;

    /// Clamped to 1...1440 minutes.
    explicit constexpr Horizon(std::int64_t minutes) noexcept
        : minutes_(minutes < 1      ? 1
                   : minutes > 1440 ? 1440
                                    : static_cast<int>(minutes)) {}

    /// Reads "unlimited", "twentyMinutes", "oneHour", "threeHours", or "minutes:" and a decimal number from 1 to 1440;
    /// anything else gives nothing.
    [[nodiscard]] static std::optional<Horizon> fromRawValue(std::string_view raw) noexcept;

    /// The text by which it is stored: 20, 60 and 180 minutes by their names, others as "minutes:45".
    [[nodiscard]] std::string rawValue() const;

    /// The same text as `rawValue`.
    [[nodiscard]] std::string id() const { return rawValue(); }

    /// Absent when unlimited.
    [[nodiscard]] std::optional<std::int64_t> minutes() const noexcept;

    /// The same in seconds.
    [[nodiscard]] std::optional<double> seconds() const noexcept;

    /// The name shown to the user: "Unlimited", "2 hours", "90 minutes".
    [[nodiscard]] std::string label() const;

    /// What it costs on disk: "~220 MB on disk".
    [[nodiscard]] std::string cost() const;

    /// What it means, with its cost, in one line.
    [[nodiscard]] std::string note() const;

    /// The horizon after this one in `allCases`, round and round; the first for one that is not offered.
    [[nodiscard]] Horizon next() const noexcept;

    /// Whether so many seconds of stored music are enough; for the unlimited horizon never.
    [[nodiscard]] bool isSatisfied(double bySeconds) const noexcept;

    friend constexpr bool operator==(const Horizon&, const Horizon&) = default;

private:
    struct Unlimited {};
    explicit constexpr Horizon(Unlimited) noexcept : minutes_(0) {}
    friend struct std::hash<Horizon>;

    int minutes_;  // 0 is unlimited
};

inline constexpr Horizon Horizon::twentyMinutes{20};
inline constexpr Horizon Horizon::oneHour{60};
inline constexpr Horizon Horizon::threeHours{180};
inline constexpr Horizon Horizon::unlimited{Horizon::Unlimited{}};

/// Written and read as one string, the raw value.
void encode(JSONWriter& writer, const Horizon& horizon);
template <>
Horizon decode<Horizon>(const JSONValue& value);

}  // namespace quillmere

template <>
struct std::hash<quillmere::Horizon> {
    std::size_t operator()(const quillmere::Horizon& horizon) const noexcept {
        return std::hash<int>{}(horizon.minutes_);
    }
};
