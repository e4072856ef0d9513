#include "QuillmereKit/Moods/BlendStep.hpp"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <utility>

#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Platform/Precondition.hpp"

namespace quillmere {
namespace {

constexpr std::array<BlendStep, 5> allSteps{BlendStep(0), BlendStep(1), BlendStep(2), BlendStep(3), BlendStep(4)};
constexpr std::array<BlendStep, 3> coarseStops{BlendStep(0), BlendStep(1), BlendStep(4)};
constexpr std::array<std::string_view, 3> stopLabels{"Calm", "Balanced", "Energetic"};

/// The size of `step - index`, `step` one of the five steps. Only an index near the ends of its type overflows.
std::int64_t distance(BlendStep step, std::int64_t index) {
    constexpr auto most = std::numeric_limits<std::int64_t>::max();
    precondition(index >= step.index() - most, "a blend index is too far off for its distance to be computed");
    const std::int64_t difference = step.index() - index;
    return difference < 0 ? -difference : difference;
}

/// The place in the coarse stops that is nearest to `index`; of two equally near the earlier.
std::size_t nearestStop(std::int64_t index) {
    std::size_t nearest = 0;
    for (std::size_t place = 1; place < coarseStops.size(); ++place) {
        if (distance(coarseStops[place], index) < distance(coarseStops[nearest], index)) nearest = place;
    }
    return nearest;
}

}  // namespace

const std::array<BlendStep, 5>& BlendStep::all() noexcept { return allSteps; }

const std::array<BlendStep, 3>& BlendStep::stops() noexcept { return coarseStops; }

BlendStep BlendStep::atPosition(double position) {
    const double doubled = position * 2;
    precondition(doubled >= -0x1p63 && doubled < 0x1p63, "a blend position must be a finite number in range");
    const double place = std::clamp(std::round(doubled), 0.0, 2.0);
    return coarseStops[static_cast<std::size_t>(place)];
}

double BlendStep::position() const { return static_cast<double>(nearestStop(index_)) * 0.5; }

std::string_view BlendStep::label() const { return stopLabels[nearestStop(index_)]; }

std::array<BlendStep, 5> BlendStep::byProximity() const {
    auto steps = allSteps;
    std::ranges::sort(steps, {}, [this](BlendStep step) { return std::pair(distance(step, index_), step.index()); });
    return steps;
}

void encode(JSONWriter& writer, const BlendStep& step) {
    writer.beginObject();
    writer.member("index", step.index());
    writer.endObject();
}

template <>
BlendStep decode<BlendStep>(const JSONValue& value) {
    return BlendStep::unclamped(value.member<std::int64_t>("index"));
}

}  // namespace quillmere
