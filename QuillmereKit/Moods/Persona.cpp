#include "QuillmereKit/Moods/Persona.hpp"

#include <algorithm>

#include "QuillmereKit/Platform/Hashing.hpp"
#include "QuillmereKit/Platform/JSONWriter.hpp"
#include "QuillmereKit/Platform/Precondition.hpp"

namespace quillmere {
namespace {

constexpr std::size_t mostBytes = std::size_t{16} << 20;

std::map<Anchor, std::string> decodePrompts(const JSONValue& value) {
    std::map<Anchor, std::string> prompts;
    for (const auto anchor : allCases<Anchor>()) {
        if (value.find(rawValue(anchor))) prompts[anchor] = value.member<std::string>(rawValue(anchor));
    }
    return prompts;
}

}  // namespace

std::string Persona::prompt(Anchor anchor) const {
    const auto found = prompts.find(anchor);
    return found != prompts.end() ? found->second : std::string();
}

void encode(JSONWriter& writer, const Persona& persona) {
    writer.beginObject();
    writer.member("id", persona.id);
    writer.member("name", persona.name);
    writer.member("symbol", persona.symbol);
    writer.key("prompts");
    writer.beginObject();
    for (const auto& [anchor, prompt] : persona.prompts) writer.member(rawValue(anchor), prompt);
    writer.endObject();
    writer.endObject();
}

template <>
Persona decode<Persona>(const JSONValue& value) {
    Persona persona{
        .id = value.member<std::string>("id"),
        .name = value.member<std::string>("name"),
        .symbol = value.member<std::string>("symbol"),
        .prompts = {},
    };
    const auto prompts = value.find("prompts");
    if (!prompts) throw JSONError("is missing").inMember("prompts");
    try {
        persona.prompts = decodePrompts(*prompts);
    } catch (const JSONError& error) {
        throw error.inMember("prompts");
    }
    return persona;
}

PersonaCatalog::CatalogError::CatalogError(Reason reason)
    : Error(reason == Reason::missing ? "the resource is not in the bundle" : "the file holds no persona"),
      reason_(reason) {}

PersonaCatalog::PersonaCatalog(const ResourceBundle& bundle) {
    const auto file = bundle.resource("personas", "json");
    if (!file) throw CatalogError(CatalogError::Reason::missing);
    personas_ = JSONDocument::read(*file, mostBytes).root().member<std::vector<Persona>>("personas");
    if (personas_.empty()) throw CatalogError(CatalogError::Reason::empty);
}

PersonaCatalog PersonaCatalog::loadedOrStopping(const ResourceBundle& bundle) {
    try {
        return PersonaCatalog(bundle);
    } catch (const Error& error) {
        // The place is part of the message, whatever file this code lives in.
        fatalError("personas.json is missing or invalid: " + std::string(error.what()), "QuillmereKit/Persona", 70);
    }
}

const PersonaCatalog& PersonaCatalog::bundled() {
    static const PersonaCatalog catalog = loadedOrStopping(ResourceBundle::library());
    return catalog;
}

std::optional<Persona> PersonaCatalog::operator[](std::string_view id) const {
    const auto found = std::ranges::find(personas_, id, &Persona::id);
    if (found == personas_.end()) return std::nullopt;
    return *found;
}

}  // namespace quillmere

std::size_t std::hash<quillmere::Persona>::operator()(const quillmere::Persona& persona) const noexcept {
    quillmere::Hasher hasher;
    hasher.add(persona.id).add(persona.name).add(persona.symbol).add(persona.prompts.size());
    for (const auto& [anchor, prompt] : persona.prompts) hasher.add(anchor).add(prompt);
    return hasher.value();
}
