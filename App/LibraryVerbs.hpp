#pragma once

namespace CLI {
class App;
}

namespace quillmere::app {

class Host;

// Each adds one verb below `library`, as the functions of Verbs.hpp do.
void addLibraryListVerb(CLI::App& library, Host& host);
void addLibraryMeasureVerb(CLI::App& library, Host& host);
void addLibraryMigrateVerb(CLI::App& library, Host& host);
void addLibraryPruneVerb(CLI::App& library, Host& host);
void addLibraryRecoverVerb(CLI::App& library, Host& host);
void addLibraryShowVerb(CLI::App& library, Host& host);
void addLibraryTrashVerb(CLI::App& library, Host& host);
void addLibraryVerifyVerb(CLI::App& library, Host& host);

}  // namespace quillmere::app
