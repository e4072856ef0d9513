#pragma once

namespace quillmere::app {

class Host;
class Verb;

// Each adds one verb with its options, help text and example to the command line. The verb runs when the command line
// has been read, throws what it cannot handle, and leaves its result in `Host::exitCode`.
void addMoodsVerb(Verb program, Host& host);
void addGenerateVerb(Verb program, Host& host);
void addEnginesVerb(Verb program, Host& host);
void addLibraryVerb(Verb program, Host& host);
void addScheduleVerb(Verb program, Host& host);
void addSettingsVerb(Verb program, Host& host);
void addStatusVerb(Verb program, Host& host);
void addDigestVerb(Verb program, Host& host);
void addPersonasVerb(Verb program, Host& host);
void addPlayVerb(Verb program, Host& host);
void addRadioVerb(Verb program, Host& host);
void addRecipeVerb(Verb program, Host& host);
void addTagsVerb(Verb program, Host& host);
void addVaultVerb(Verb program, Host& host);

}  // namespace quillmere::app
