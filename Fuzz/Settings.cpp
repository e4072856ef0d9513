#include "App/SettingsFile.hpp"
#include "Fuzz/RoundTrip.hpp"

// The host's settings. Whatever the file holds, they open and take a change, and what is not theirs stays in the file.

namespace {

namespace fs = std::filesystem;
using namespace quillmere;
using fuzz::require;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto text = fuzz::text(data, size);
    const auto folder = fuzz::sandbox() / "settings";
    const auto path = folder / "settings.json";
    fs::remove_all(folder);
    fuzz::write(path, text);

    app::SettingsFile file(path);
    const auto before = file.settings();
    require(!before.schedule || before.schedule->isValid(), "a window that is held is one");
    require(!before.radio || before.radio->count() > 0, "a radio that is held has a mood");
    file.set("horizon", Horizon::threeHours);

    auto expected = before;
    expected.horizon = Horizon::threeHours;
    require(file.settings() == expected, "a choice changes nothing else");
    require(app::SettingsFile(path).settings() == expected, "the file holds the choices");

    const std::string written = fuzz::read(path);
    const auto document = JSONDocument::parse(written);
    bool isObject = true;
    try {
        const auto found = JSONDocument::parse(text);
        for (const auto& [key, value] : found.root().members()) {
            const auto kept = document.root().find(key);
            require(kept.has_value(), "no key is lost");
            const bool isFirst = found.root().find(key)->text() == value.text();
            require(key == "horizon" || !isFirst || kept->text() == value.text(), "no value is lost");
        }
    } catch (const JSONError&) {
        isObject = false;
    }
    require(isObject || fuzz::isKeptBeside(path, text), "a file that cannot be read is kept");

    file.reset("horizon");
    require(file.settings().horizon == Horizon::oneHour, "a choice that is taken back leaves the default");
    return 0;
}
