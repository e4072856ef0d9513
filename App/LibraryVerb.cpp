#include <CLI/CLI.hpp>

#include "App/LibraryVerbs.hpp"
#include "App/Verbs.hpp"

namespace quillmere::app {

void addLibraryVerb(CLI::App& app, Host& host) {
    auto& verb = *app.add_subcommand("library", "Look after the pieces that were made");
    verb.footer("Example: quillmere library list --mood designflow");
    verb.require_subcommand(1);
    addLibraryListVerb(verb, host);
    addLibraryShowVerb(verb, host);
    addLibraryMeasureVerb(verb, host);
    addLibraryPruneVerb(verb, host);
    addLibraryTrashVerb(verb, host);
    addLibraryMigrateVerb(verb, host);
    addLibraryVerifyVerb(verb, host);
    addLibraryRecoverVerb(verb, host);
}

}  // namespace quillmere::app
