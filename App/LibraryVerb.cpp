#include "App/CommandLine.hpp"
#include "App/LibraryVerbs.hpp"
#include "App/Verbs.hpp"

namespace quillmere::app {

void addLibraryVerb(Verb program, Host& host) {
    Verb verb = program.addVerb("library", "Look after the pieces that were made");
    verb.footer("Example: quillmere library list --mood designflow");
    verb.requireVerbs(1, 1);
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
