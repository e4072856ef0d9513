#include <cstdio>

#include "App/CommandLine.hpp"
#include "App/Host.hpp"
#include "App/Output.hpp"
#include "App/PersonaChoice.hpp"
#include "App/Suggestion.hpp"
#include "App/Terminal.hpp"
#include "App/UsageError.hpp"
#include "App/Verbs.hpp"

namespace quillmere::app {

Persona namedPersona(const std::string& option, const std::string& id) {
    if (const auto found = PersonaCatalog::bundled()[id]) return *found;
    std::vector<std::string> known;
    for (const Persona& persona : PersonaCatalog::bundled().personas()) known.push_back(persona.id);
    throw UsageError(option, "there is no persona \"" + safeForTerminal(id) + "\"." +
                                 didYouMean(id, known, " 'quillmere personas' lists them."));
}

void addPersonasVerb(Verb program, Host& host) {
    Verb verb = program.addVerb("personas", "List the ready-made characters, or show one");
    verb.footer("Example: quillmere personas archivist");
    auto id = std::make_shared<std::string>();
    verb.addOption("persona", *id, "The persona's id; without it, all are listed").typeName("PERSONA");
    addHomeOption(verb, host);
    addJSONOption(verb, host);
    verb.callback([id, &host] {
        host.prepare();
        const auto chosen =
            id->empty() ? PersonaCatalog::bundled().personas() : std::vector<Persona>{namedPersona("persona", *id)};
        if (host.json) {
            JSONWriter writer(JSONWriter::Form::pretty);
            writer.array(chosen);
            return printJSON(writer);
        }
        for (const Persona& persona : chosen) {
            std::printf("%-16s %s\n", safeForTerminal(persona.id).c_str(), safeForTerminal(persona.name).c_str());
            if (id->empty()) continue;
            for (const auto& [anchor, prompt] : persona.prompts) {
                std::printf("  %-10s %s\n", std::string(rawValue(anchor)).c_str(), safeForTerminal(prompt).c_str());
            }
        }
    });
}

}  // namespace quillmere::app
