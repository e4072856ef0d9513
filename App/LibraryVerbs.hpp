#pragma once

namespace quillmere::app {

class Host;
class Verb;

// Each adds one verb below `library`, as the functions of Verbs.hpp do.
void addLibraryListVerb(Verb library, Host& host);
void addLibraryMeasureVerb(Verb library, Host& host);
void addLibraryMigrateVerb(Verb library, Host& host);
void addLibraryPruneVerb(Verb library, Host& host);
void addLibraryRecoverVerb(Verb library, Host& host);
void addLibraryShowVerb(Verb library, Host& host);
void addLibraryTrashVerb(Verb library, Host& host);
void addLibraryVerifyVerb(Verb library, Host& host);

}  // namespace quillmere::app
