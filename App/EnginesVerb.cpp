#include <algorithm>
#include <cstdio>

#include "App/CommandLine.hpp"
#include "App/EngineCommand.hpp"
#include "App/Engines.hpp"
#include "App/Host.hpp"
#include "App/Output.hpp"
#include "App/Terminal.hpp"
#include "App/Verbs.hpp"
#include "QuillmereKit/Moods/MoodCatalog.hpp"

namespace quillmere::app {
namespace {

// One model on one engine, which an identity-model string names.
struct Offer {
    GenerationEngine engine;
    GenerationModel model;
    std::string identityModel;
    std::optional<std::string> build;
};

std::vector<Offer> offersOf(GenerationBackends& engines) {
    std::vector<Offer> offers;
    const auto& mood = MoodCatalog::defaultMood();
    for (const GenerationEngine engine : allCases<GenerationEngine>()) {
        for (const GenerationModel model : allCases<GenerationModel>()) {
            auto name = identityModel(engine, model);
            const auto identity = mood.identity(BlendStep(1), 1, name);
            auto build = identity ? engines.engineBuild(*identity) : std::nullopt;
            offers.push_back({engine, model, std::move(name), std::move(build)});
        }
    }
    return offers;
}

void printAsJSON(const std::string& command, const std::vector<Offer>& offers) {
    JSONWriter writer(JSONWriter::Form::pretty);
    writer.beginObject();
    writer.member("command", safeForTerminal(command));
    writer.key("models");
    writer.beginArray();
    for (const auto& offer : offers) {
        writer.beginObject();
        writer.member("runtime", offer.engine);
        writer.member("runtimeLabel", label(offer.engine));
        writer.member("model", offer.model);
        writer.member("modelLabel", label(offer.model));
        writer.member("identityModel", offer.identityModel);
        writer.member("isAvailable", offer.build.has_value());
        writer.member("engineBuild", offer.build);
        writer.endObject();
    }
    writer.endArray();
    writer.endObject();
    printJSON(writer);
}

void printAsText(const std::string& command, const std::vector<Offer>& offers) {
    std::printf("%s\n", safeForTerminal(command).c_str());
    for (const auto& offer : offers) {
        std::printf("  %-24s %-11s %-6s %s\n", offer.identityModel.c_str(), std::string(label(offer.engine)).c_str(),
                    std::string(label(offer.model)).c_str(),
                    offer.build ? safeForTerminal(*offer.build).c_str() : "not available");
    }
}

}  // namespace

void addEnginesVerb(Verb program, Host& host) {
    Verb verb = program.addVerb("engines", "Show which models and runtimes can make music, and their builds");
    verb.footer(
        "An engine that does not tell its build counts as not available here; it may be able to make music all the\n"
        "same. Ends with 1 if no model is available.\n\n"
        "Example: quillmere engines --json");
    auto command = std::make_shared<std::string>();
    verb.addOption("--engine", *command, "Ask this engine (default: Tonebed)").typeName("CMD");
    addLibraryOptions(verb, host);
    addJSONOption(verb, host);
    verb.callback([command, &host] {
        host.prepare();
        const auto engines = enginesFor(*command, host.readingStore());
        const std::string name = command->empty() ? defaultEngineCommand().front() : *command;
        const auto offers = offersOf(*engines);
        host.json ? printAsJSON(name, offers) : printAsText(name, offers);
        const auto isAvailable = [](const Offer& offer) { return offer.build.has_value(); };
        if (std::ranges::none_of(offers, isAvailable)) host.fail(ExitCode::failure, "No model is available.");
    });
}

}  // namespace quillmere::app
