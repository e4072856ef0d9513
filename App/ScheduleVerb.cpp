#include <chrono>
#include <cstdio>

#include "App/CommandLine.hpp"
#include "App/Host.hpp"
#include "App/Output.hpp"
#include "App/ScheduleState.hpp"
#include "App/TimeWindow.hpp"
#include "App/Verbs.hpp"

namespace quillmere::app {

void addScheduleVerb(Verb program, Host& host) {
    Verb verb = program.addVerb("schedule", "Show or set the daily window in which music may be made");
    verb.footer("Example: quillmere schedule 22:00-06:00");
    auto window = std::make_shared<std::string>();
    const Option given = verb.addOption("window", *window, "The new window, or none").typeName("HH:MM-HH:MM");
    addHomeOption(verb, host);
    addJSONOption(verb, host);

    verb.callback([window, given, &host] {
        host.prepare();
        const auto lock = given.isGiven() ? Host::lockData() : nullptr;  // before the file is read
        SettingsFile& file = given.isGiven() ? host.presentSettings() : host.settingsFile();
        if (given.isGiven()) {
            host.change(
                [&] { *window == "none" ? file.reset("schedule") : file.set("schedule", chosenWindow(*window)); });
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
