#include <algorithm>
#include <cstdio>
#include <iterator>

#include "App/CommandLine.hpp"
#include "App/Host.hpp"
#include "App/Output.hpp"
#include "App/Suggestion.hpp"
#include "App/Terminal.hpp"
#include "App/UsageError.hpp"
#include "App/Verbs.hpp"
#include "QuillmereKit/Moods/TagVocabulary.hpp"
#include "QuillmereKit/Platform/ResourceBundle.hpp"

namespace quillmere::app {
namespace {

TagCategory namedCategory(const std::string& text) {
    if (const auto found = fromRawValue<TagCategory>(text)) return *found;
    std::vector<std::string> known;
    for (const TagCategory each : allCases<TagCategory>()) known.emplace_back(rawValue(each));
    throw UsageError("category", "there is no category \"" + safeForTerminal(text) + "\"." +
                                     didYouMean(text, known, " 'quillmere tags' lists them with their tags."));
}

TagVocabulary vocabulary(const std::string& file) {
    if (!file.empty()) return TagVocabulary::load(file);
    const auto shipped = ResourceBundle::main().resource("tags", "json");
    if (!shipped) throw Error("No vocabulary is installed with this program. Name one with --file.");
    return TagVocabulary::load(*shipped);
}

}  // namespace

void addTagsVerb(Verb program, Host& host) {
    struct Options {
        std::string category;
        std::string file;
    };
    auto options = std::make_shared<Options>();
    Verb verb = program.addVerb("tags", "List the tags suggested for moods of your own");
    verb.footer("Example: quillmere tags instruments");
    verb.addOption("category", options->category, "genre, moods, instruments, tempo, texture or nature")
        .typeName("CATEGORY");
    verb.addOption("--file", options->file, "Another vocabulary").typeName("FILE");
    addHomeOption(verb, host);
    addJSONOption(verb, host);
    verb.callback([options, &host] {
        host.prepare();
        TagVocabulary shown;
        std::vector<TagCategory> wanted;
        if (options->category.empty()) {
            std::ranges::copy(allCases<TagCategory>(), std::back_inserter(wanted));
        } else {
            wanted.push_back(namedCategory(options->category));
        }
        const TagVocabulary all = vocabulary(options->file);
        for (const TagCategory each : wanted) shown.sections.push_back({each, all.tags(each)});
        if (host.json) {
            JSONWriter writer(JSONWriter::Form::pretty);
            encode(writer, shown);
            return printJSON(writer);
        }
        for (const auto& section : shown.sections) {
            std::printf("%s (%s)\n", std::string(title(section.category)).c_str(),
                        std::string(rawValue(section.category)).c_str());
            for (const auto& entry : section.tags) {
                std::printf("  %-28s %s\n", safeForTerminal(entry.tag).c_str(), safeForTerminal(entry.source).c_str());
            }
        }
    });
}

}  // namespace quillmere::app
