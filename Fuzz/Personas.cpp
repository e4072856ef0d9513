#include "Fuzz/RoundTrip.hpp"
#include "QuillmereKit/Moods/Persona.hpp"

// The catalogue of personas among the library's resources.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace quillmere;
    const auto folder = fuzz::sandbox() / "personas";
    fuzz::write(folder / "personas.json", fuzz::text(data, size));

    try {
        const PersonaCatalog catalog{ResourceBundle(folder)};
        fuzz::require(!catalog.personas().empty(), "a catalogue holds a persona");
        for (const auto& persona : catalog.personas()) {
            fuzz::requireRoundTrip(persona);
            fuzz::require(catalog[persona.id].has_value(), "a persona is found by its id");
        }
    } catch (const JSONError&) {
        return 0;
    } catch (const PersonaCatalog::CatalogError&) {
        return 0;
    }
    return 0;
}
