#include "App/MemoryPressure.hpp"

#include <array>
#include <charconv>
#include <cstddef>
#include <fstream>
#include <string>

namespace quillmere::app {
namespace {

// The share of the last ten seconds in a line such as "some avg10=1.23 avg60=...", in percent.
std::optional<double> shareOf(std::string_view kind, std::string_view figures) {
    const std::string mark = std::string(kind) + " avg10=";
    const auto place = figures.find(mark);
    if (place == std::string_view::npos || (place > 0 && figures[place - 1] != '\n')) return std::nullopt;
    const auto number = figures.substr(place + mark.size());
    double share = 0;
    const auto [rest, error] = std::from_chars(number.data(), number.data() + number.size(), share);
    return error == std::errc{} && share >= 0 ? std::optional(share) : std::nullopt;
}

}  // namespace

std::optional<GenerationMemoryPressure> memoryPressure(std::string_view figures) {
    constexpr double noticeable = 10;  // percent of the time
    const auto some = shareOf("some", figures);
    if (!some) return std::nullopt;
    if (shareOf("full", figures).value_or(0) >= noticeable) return GenerationMemoryPressure::critical;
    return *some >= noticeable ? GenerationMemoryPressure::warning : GenerationMemoryPressure::normal;
}

std::optional<GenerationMemoryPressure> presentMemoryPressure(const std::filesystem::path& file) {
    std::ifstream figures(file);
    std::array<char, 1024> text{};
    // The kernel refuses to read where it was built or started without the figures; then nothing is read.
    figures.read(text.data(), text.size());
    return memoryPressure(std::string_view(text.data(), static_cast<std::size_t>(figures.gcount())));
}

std::string_view text(GenerationMemoryPressure pressure) {
    switch (pressure) {
        case GenerationMemoryPressure::normal: return "normal";
        case GenerationMemoryPressure::warning: return "warning";
        case GenerationMemoryPressure::critical: break;
    }
    return "critical";
}

}  // namespace quillmere::app
