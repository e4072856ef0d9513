#include <optional>

#include "Fuzz/RoundTrip.hpp"
#include "QuillmereKit/Moods/CustomMoodStore.hpp"

// The file of the user's own moods. Whatever it holds, the store opens and takes a change; what was read is in the file
// afterwards, and what could not be read is kept beside it.

namespace {

namespace fs = std::filesystem;
using namespace quillmere;
using fuzz::require;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto text = fuzz::text(data, size);
    const auto folder = fuzz::sandbox() / "moods";
    const auto file = folder / "Moods.json";
    fs::remove_all(folder);
    fuzz::write(file, text);

    CustomMoodStore store(file);
    const auto moods = store.all();
    for (const auto& mood : moods) {
        fuzz::requireRoundTrip(mood);
        static_cast<void>(mood.isPlayable());
        for (const auto step : {-1, 0, 1, 2, 3, 4, 5}) static_cast<void>(mood.prompt(BlendStep(step)));
        require(mood.rendersLike(mood), "a mood sounds like itself");
        require(!mood.tagsOnly().soundGuide, "a mood of tags alone has no guide");
    }
    const bool isMovedAside = !fs::exists(file);
    require(!isMovedAside || (moods.empty() && fuzz::isKeptBeside(file, text)),
            "a file that cannot be read is moved aside whole");

    const auto added = MoodSpec::blank(MoodGlyph::wave);
    store.save(added);

    const auto after = CustomMoodStore(file).all();
    require(after == store.all(), "the file holds what the store holds");
    require(after.size() == moods.size() + 1 && after.front() == added, "a new mood comes first");
    require(std::equal(moods.begin(), moods.end(), after.begin() + 1), "no other mood is lost");
    return 0;
}
