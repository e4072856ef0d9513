#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>

#include "App/Host.hpp"
#include "App/Output.hpp"
#include "App/ScheduleState.hpp"
#include "App/TimeWindow.hpp"
#include "App/Verbs.hpp"

namespace quillmere::app {

void addScheduleVerb(CLI::App& app, Host& host) {
    auto& verb = *app.add_subcommand("schedule", "Show or set the daily window in which music may be made");
    verb.footer("Example: quillmere schedule 22:00-06:00");
    auto window = std::make_shared<std::string>();
    auto* given = verb.add_option("window", *window, "The new window, or none")->type_name("HH:MM-HH:MM");
    addHomeOption(verb, host);
    addJSONOption(verb, host);

    verb.callback([window, given, &host] {
        host.prepare();
        const auto lock = given->count() > 0 ? Host::lockData() : nullptr;  // before the file is read
        SettingsFile& file = host.settingsFile();
        if (given->count() > 0) {
            *window == "none" ? file.reset("schedule") : file.set("schedule", chosenWindow(*window));
        }
        const Settings& settings = file.settings();
        const auto state = ScheduleState::at(std::chrono::system_clock::now(), settings.schedule);
        if (host.json) {
            JSONWriter writer(JSONWriter::Form::pretty);
            writer.beginObject();
            writeMembers(writer, state, settings.schedule);
            writer.member("mode", settings.mode);
            writer.member("zone", Calendar::current().zone());
            writer.endObject();
            printJSON(writer);
            return;
        }
        std::printf("%s\n", state.text(settings.schedule).c_str());
        if (settings.schedule && settings.mode != GenerationMode::scheduled) {
            std::printf("Music is made \"%s\": the window counts once 'quillmere settings mode scheduled' is set.\n",
                        std::string(label(settings.mode)).c_str());
        }
    });
}

}  // namespace quillmere::app
