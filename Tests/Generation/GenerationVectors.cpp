#include <chrono>
#include <cmath>
#include <initializer_list>
#include <optional>
#include <string>

#include "QuillmereKit/Generation/GenerationSchedule.hpp"
#include "QuillmereKit/Generation/GenerationStage.hpp"
#include "Tests/Support/Vectors.hpp"

namespace quillmere {
namespace {

using Activity = GenerationActivity;
using Stage = GenerationStage;

// A stage as the golden data names it: the case, then its payload.
struct Described {
    static std::string text(const Activity& activity) {
        if (const auto* waiting = std::get_if<Activity::Waiting>(&activity.value())) {
            return " waiting " + std::to_string(waiting->seconds);
        }
        return std::holds_alternative<Activity::Loading>(activity.value()) ? " loading" : " running";
    }
    static std::string text(std::initializer_list<std::int64_t> numbers) {
        std::string result;
        for (const auto number : numbers) result += " " + std::to_string(number);
        return result;
    }
    std::string operator()(const Stage::Sampling& s) const { return "sampling" + text({s.step, s.total}); }
    std::string operator()(const Stage::EncodingBlock& s) const {
        return "encodingBlock" + text({s.block, s.total}) + text(s.activity);
    }
    std::string operator()(const Stage::SamplingBlock& s) const {
        return "samplingBlock" + text({s.step, s.total, s.block, s.blocks}) + text(s.activity);
    }
    std::string operator()(const Stage::DecodingBlock& s) const {
        return "decodingBlock" + text({s.window, s.windows, s.block, s.blocks}) + text(s.activity);
    }
    std::string operator()(Stage::Preparing) const { return "preparing"; }
    std::string operator()(Stage::Encoding) const { return "encoding"; }
    std::string operator()(Stage::Decoding) const { return "decoding"; }
    std::string operator()(Stage::Processing) const { return "processing"; }
};

QUILLMERE_VECTOR_TEST(Stages, "stages") {
    const auto stage = Stage::fromEngineLine(vector["line"].get<std::string>());
    const auto& expected = vector["stage"];

    ASSERT_EQ(stage.has_value(), !expected.is_null()) << vector;
    if (!stage) return;
    EXPECT_EQ(std::visit(Described{}, stage->value()), expected.get<std::string>());
    if (vector.contains("label")) {
        EXPECT_EQ(stage->label(), vector["label"].get<std::string>());
    }
}

// Seconds since 1970 as the golden data has them; fractions there are exact in binary.
Date date(double seconds) {
    return Date(
        std::chrono::duration_cast<Date::duration>(std::chrono::seconds(std::llround(std::floor(seconds)))) +
        std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(seconds - std::floor(seconds))));
}

std::optional<Date> optionalDate(const test::VectorCase& value) {
    return value.is_null() ? std::nullopt : std::optional(date(value.get<double>()));
}

QUILLMERE_VECTOR_TEST(Schedules, "schedules") {
    const GenerationSchedule schedule{.startMinute = vector["start"].get<std::int64_t>(),
                                      .endMinute = vector["end"].get<std::int64_t>()};
    const auto calendar = Calendar::inZone(vector["zone"].get<std::string>());
    ASSERT_TRUE(calendar) << vector;
    const auto now = date(vector["date"].get<double>());

    EXPECT_EQ(schedule.contains(now, *calendar), vector["contains"].get<bool>()) << vector;
    EXPECT_EQ(schedule.nextStart(now, *calendar), optionalDate(vector["nextStart"])) << vector;
    EXPECT_EQ(schedule.windowStart(now, *calendar), optionalDate(vector["windowStart"])) << vector;
}

}  // namespace
}  // namespace quillmere
