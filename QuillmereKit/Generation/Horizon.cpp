#include "QuillmereKit/Generation/Horizon.hpp"

#include <algorithm>
#include <cmath>

#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Platform/Text.hpp"

namespace quillmere {
namespace {

struct NamedHorizon {
    Horizon horizon;
    std::string_view raw;
};
constexpr std::array<NamedHorizon, 4> namedHorizons{{
    {Horizon::twentyMinutes, "twentyMinutes"},
    {Horizon::oneHour, "oneHour"},
    {Horizon::threeHours, "threeHours"},
    {Horizon::unlimited, "unlimited"},
}};
constexpr std::string_view minutesPrefix = "minutes:";

}  // namespace

const std::array<Horizon, 8>& Horizon::allCases() noexcept {
    static constexpr std::array<Horizon, 8> cases{Horizon{5}, Horizon{10},  twentyMinutes, Horizon{30},
                                                  oneHour,    Horizon{120}, threeHours,    unlimited};
    return cases;
}

std::optional<Horizon> Horizon::fromRawValue(std::string_view raw) noexcept {
    const auto named = std::ranges::find(namedHorizons, raw, &NamedHorizon::raw);
    if (named != namedHorizons.end()) return named->horizon;
    if (!raw.starts_with(minutesPrefix)) return std::nullopt;
    const auto minutes = decimalInteger(raw.substr(minutesPrefix.size()));
    if (!minutes || *minutes < 1 || *minutes > 1440) return std::nullopt;
    return Horizon{*minutes};
}

std::string Horizon::rawValue() const {
    const auto named = std::ranges::find(namedHorizons, *this, &NamedHorizon::horizon);
    if (named != namedHorizons.end()) return std::string(named->raw);
    return std::string(minutesPrefix) + std::to_string(minutes_);
}

std::optional<std::int64_t> Horizon::minutes() const noexcept {
    if (*this == unlimited) return std::nullopt;
    return minutes_;
}

std::optional<double> Horizon::seconds() const noexcept {
    if (*this == unlimited) return std::nullopt;
    return minutes_ * 60.0;
}

std::string Horizon::label() const {
    if (*this == unlimited) return "Unlimited";
    if (*this == oneHour) return "1 hour";
    if (minutes_ % 60 == 0) return std::to_string(minutes_ / 60) + " hours";
    return std::to_string(minutes_) + " minutes";
}

std::string Horizon::cost() const {
    if (*this == unlimited) return "storage grows as new music is saved";
    return "~" + std::to_string(std::lround(minutes_ * megabytesPerMinute)) + " MB on disk";
}

std::string Horizon::note() const { return "Saved music before it repeats · " + cost(); }

Horizon Horizon::next() const noexcept {
    const auto& cases = allCases();
    const auto self = std::ranges::find(cases, *this);
    return self == cases.end() || self + 1 == cases.end() ? cases.front() : *(self + 1);
}

bool Horizon::isSatisfied(double bySeconds) const noexcept {
    const auto wanted = seconds();
    return wanted && *wanted <= bySeconds;
}

void encode(JSONWriter& writer, const Horizon& horizon) { writer.string(horizon.rawValue()); }

template <>
Horizon decode<Horizon>(const JSONValue& value) {
    if (const auto horizon = Horizon::fromRawValue(value.string())) return *horizon;
    throw JSONError("Invalid music duration");
}

}  // namespace quillmere
