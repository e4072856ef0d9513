#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "QuillmereKit/Moods/Anchor.hpp"
#include "QuillmereKit/Platform/Errors.hpp"
#include "QuillmereKit/Platform/JSONReader.hpp"
#include "QuillmereKit/Platform/ResourceBundle.hpp"

namespace quillmere {

class JSONWriter;

/// A ready-made character: a name, a symbol, and a prompt text for each end of the axis. A plain value.
struct Persona {
    std::string id;                         ///< Unique in its catalogue.
    std::string name;                       ///< Shown to the user.
    std::string symbol;                     ///< Name of the symbol drawn for it.
    std::map<Anchor, std::string> prompts;  ///< Prompt text of each end.

    /// The prompt text of one end; empty where there is none.
    [[nodiscard]] std::string prompt(Anchor anchor) const;

    friend bool operator==(const Persona&, const Persona&) = default;
};

/// {"id": text, "name": text, "symbol": text, "prompts": {"calm": text, "energetic": text}}; all four keys required.
/// In "prompts" an end may be missing, and every other key is ignored.
void encode(JSONWriter& writer, const Persona& persona);
template <>
Persona decode<Persona>(const JSONValue& value);

/// The personas that ship with the library, in the resource "personas.json". Never empty. Immutable, so thread-safe.
class PersonaCatalog {
public:
    /// The resource is not as it must be, although it can be read.
    class CatalogError : public Error {
    public:
        /// What is wrong with the resource.
        enum class Reason {
            missing,  ///< The bundle has no such resource.
            empty,    ///< The file holds no persona.
        };

        /// The error with its sentence.
        explicit CatalogError(Reason reason);

        /// What is wrong.
        [[nodiscard]] Reason reason() const noexcept { return reason_; }

    private:
        Reason reason_;
    };

    /// Reads the bundle's "personas.json", which may have 16 MiB. Throws `CatalogError`, `FileError` or `JSONError`.
    /// Blocks on disk.
    explicit PersonaCatalog(const ResourceBundle& bundle);

    /// The catalogue in the library's own resources, read on first use. A missing or broken one is a defect of the
    /// build and stops the process.
    [[nodiscard]] static const PersonaCatalog& bundled();

    /// The bundle's catalogue; the process stops with the reason if there is none. Blocks on disk.
    [[nodiscard]] static PersonaCatalog loadedOrStopping(const ResourceBundle& bundle);

    /// In file order.
    [[nodiscard]] const std::vector<Persona>& personas() const noexcept { return personas_; }

    /// The first persona with exactly this id, or nothing.
    [[nodiscard]] std::optional<Persona> operator[](std::string_view id) const;

    /// The first persona of the file.
    [[nodiscard]] const Persona& first() const noexcept { return personas_.front(); }

private:
    std::vector<Persona> personas_;
};

}  // namespace quillmere

template <>
struct std::hash<quillmere::Persona> {
    std::size_t operator()(const quillmere::Persona& persona) const noexcept;
};
