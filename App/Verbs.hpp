#pragma once

namespace CLI {
class App;
}

namespace quillmere::app {

class Host;

// Each adds one verb with its options, help text and example to the command line. The verb runs when the command line
// has been read, throws what it cannot handle, and leaves its result in `Host::exitCode`.
void addMoodsVerb(CLI::App& app, Host& host);
void addGenerateVerb(CLI::App& app, Host& host);
void addEnginesVerb(CLI::App& app, Host& host);
void addLibraryVerb(CLI::App& app, Host& host);
void addScheduleVerb(CLI::App& app, Host& host);
void addSettingsVerb(CLI::App& app, Host& host);
void addStatusVerb(CLI::App& app, Host& host);
void addDigestVerb(CLI::App& app, Host& host);
void addPersonasVerb(CLI::App& app, Host& host);
void addPlayVerb(CLI::App& app, Host& host);
void addRadioVerb(CLI::App& app, Host& host);
void addRecipeVerb(CLI::App& app, Host& host);
void addTagsVerb(CLI::App& app, Host& host);
void addVaultVerb(CLI::App& app, Host& host);

}  // namespace quillmere::app
