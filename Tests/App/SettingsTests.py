"""The host's verbs `settings` and `schedule`, and the defaults that `generate` takes from them."""
import datetime
import json
import unittest

from host import HostTest, interrupt


class SettingsTest(HostTest):
    def setUp(self):
        super().setUp()
        self.file = self.home / "settings.json"

    def write(self, text):
        self.home.mkdir(parents=True, exist_ok=True)
        self.file.write_text(text, encoding="utf-8")

    def kept(self, reason):
        return sorted(self.home.glob(f"settings.{reason}-*.json"))


class SettingsTests(SettingsTest):
    def test_lists_every_setting_with_its_meaning(self):
        lines = self.run_host("settings").out.splitlines()

        self.assertEqual([line.split()[0] for line in lines],
                         ["horizon", "mode", "model", "pace", "radio", "schedule"])
        self.assertIn("oneHour  (1 hour · ~659 MB on disk)", lines[0])
        self.assertIn("manual  (On request)", lines[1])
        self.assertFalse(self.file.exists())

    def test_json_lists_the_choices_and_leaves_out_what_is_absent(self):
        self.assertEqual(json.loads(self.run_host("settings", "--json").out),
                         {"horizon": "oneHour", "mode": "manual", "model": "medium", "pace": "fast"})

    def test_sets_and_shows_each_setting(self):
        for name, text, shown, stored in (
                ("horizon", "45", "minutes:45", "minutes:45"), ("horizon", "60", "oneHour", "oneHour"),
                ("horizon", "unlimited", "unlimited", "unlimited"), ("mode", "scheduled", "scheduled", "scheduled"),
                ("model", "small-music", "small-music", "small-music"), ("pace", "gentle", "gentle", "gentle"),
                ("radio", "deepcode,designflow", "deepcode,designflow",
                 {"moodIDs": ["deepcode", "designflow"], "onAir": "deepcode"}),
                ("schedule", "22:00-6:30", "22:00-06:30", {"startMinute": 1320, "endMinute": 390})):
            with self.subTest(name, text=text):
                self.assertEqual(self.run_host("settings", name, text).out, shown + "\n")
                self.assertEqual(self.run_host("settings", name).out, shown + "\n")
                self.assertEqual(json.loads(self.run_host("settings", name, "--json").out), stored)
                self.assertEqual(json.loads(self.file.read_text())[name], stored)

    def test_what_is_unset_is_gone_from_the_file(self):
        for name, text, words in (("radio", "designflow", ["none"]), ("schedule", "1:00-2:00", ["none"]),
                                  ("pace", "gentle", ["--reset"])):
            self.run_host("settings", name, text)
            self.assertIn(name, json.loads(self.file.read_text()))
            self.run_host("settings", name, *words)
            self.assertNotIn(name, json.loads(self.file.read_text()))
        self.assertEqual(json.loads(self.run_host("settings", "radio", "--json").out), None)

    def test_lives_in_the_configuration_folder(self):
        self.run_host("settings", "pace", "gentle", home=False)

        file = self.place / "config/Quillmere/settings.json"
        self.assertEqual(file.read_text(), '{\n  "pace" : "gentle"\n}')

    def test_keeps_the_keys_that_it_does_not_know(self):
        self.write('{"volume": 0.5, "newer": {"b": [1, 2], "a": 123456789012345678901234}, "pace": "fast"}')

        self.run_host("settings", "pace", "gentle")

        self.assertEqual(json.loads(self.file.read_text()),
                         {"volume": 0.5, "newer": {"b": [1, 2], "a": 123456789012345678901234}, "pace": "gentle"})
        self.assertEqual(list(self.home.glob("settings.*-*.json")), [])

    def test_an_unreadable_file_is_kept_aside_before_it_is_replaced(self):
        for number, text in enumerate(('{"pace": "gentle"', '[1]', '\udcff'), 1):
            with self.subTest(text):
                self.home.mkdir(exist_ok=True)
                self.file.write_bytes(text.encode("utf-8", "surrogateescape"))

                shown = self.run_host("settings")
                self.assertIn("cannot be read", shown.err)
                self.assertEqual(len(self.kept("unreadable")), number - 1)
                self.run_host("settings", "pace", "background")

                self.assertEqual(len(self.kept("unreadable")), number)
                self.assertIn(text.encode("utf-8", "surrogateescape"),
                              [file.read_bytes() for file in self.kept("unreadable")])
                self.assertEqual(json.loads(self.file.read_text()), {"pace": "background"})

    def test_a_value_that_is_not_understood_counts_as_the_default_and_stays(self):
        for value in ('"brisk"', '7', '{"a": 1}'):
            with self.subTest(value):
                self.write('{"pace": %s, "mode": "scheduled"}' % value)

                shown = self.run_host("settings", "--json")
                self.assertEqual(json.loads(shown.out)["pace"], "fast")
                self.assertEqual(json.loads(shown.out)["mode"], "scheduled")
                self.assertIn('The setting "pace"', shown.err)
                self.run_host("settings", "horizon", "20")
                self.assertEqual(json.loads(self.file.read_text())["pace"], json.loads(value))

    def test_a_value_that_is_not_understood_is_kept_aside_when_it_is_replaced(self):
        self.write('{"pace": "brisk"}')

        self.run_host("settings", "pace", "gentle")

        self.assertEqual([file.read_text() for file in self.kept("before")], ['{"pace": "brisk"}'])

    def test_a_window_that_is_none_and_a_radio_without_moods_do_not_count(self):
        self.write('{"schedule": {"startMinute": 60, "endMinute": 60}, "radio": {"moodIDs": [], "onAir": "x"}}')

        shown = self.run_host("settings", "--json")

        self.assertNotIn("schedule", json.loads(shown.out))
        self.assertNotIn("radio", json.loads(shown.out))

    def test_a_mode_saved_by_an_earlier_version_is_read(self):
        self.write('{"mode": "whileListening"}')

        self.assertEqual(self.run_host("settings", "mode").out, "background\n")

    def test_a_file_that_cannot_be_written_is_a_failure_and_nothing_is_lost(self):
        (self.file / "in the way").mkdir(parents=True)

        done = self.run_host("settings", "pace", "gentle", expect=1)

        self.assertIn("settings.json", done.err)
        self.assertTrue((self.file / "in the way").is_dir())

    def test_mistyped_names_and_values_get_a_suggestion(self):
        for words, said in ((["pase"], 'Did you mean "pace"?'), (["pace", "gentel"], 'Did you mean "gentle"?'),
                            (["mode", "manuel"], 'Did you mean "manual"?'),
                            (["radio", "desingflow"], 'Did you mean "designflow"?'),
                            (["horizon", "unlimted"], 'Did you mean "unlimited"?'),
                            (["horizon", "1441"], "minutes from 1 to 1440"), (["horizon", "0"], "minutes"),
                            (["schedule", "22-6"], "22:00-06:00"), (["schedule", "24:00-06:00"], "22:00-06:00"),
                            (["schedule", "22:60-06:00"], "22:00-06:00"), (["schedule", "6:00-6:00"], "ends when"),
                            (["radio", ""], "name"), (["radio", ","], "no mood"), (["qqqqqq"], "settings' lists"),
                            (["--reset"], "name the setting")):
            with self.subTest(words):
                self.assertIn(said, self.run_host("settings", *words, expect=2).err)
        self.assertFalse(self.file.exists())

    def test_text_from_the_file_cannot_reach_the_terminal_as_it_is(self):
        self.write('{"radio": {"moodIDs": ["a\\u001b[31m"], "onAir": "\\u001b]0;x"}, "pace": "\\u001b[2J"}')

        shown = self.run_host("settings")

        self.assertNotIn("\x1b", shown.out + shown.err)


class ScheduleTests(SettingsTest):
    def setUp(self):
        super().setUp()
        self.environment["TZ"] = "UTC"

    @staticmethod
    def window(first, last):
        """A window from so many minutes before now to so many after it."""
        now = datetime.datetime.now(datetime.timezone.utc)
        clock = lambda minutes: (now + datetime.timedelta(minutes=minutes)).strftime("%H:%M")
        return f"{clock(first)}-{clock(last)}"

    def test_without_a_window_there_is_no_start(self):
        shown = json.loads(self.run_host("schedule", "--json").out)

        self.assertEqual(shown, {"isInside": False, "mode": "manual", "zone": shown["zone"]})
        self.assertEqual(self.run_host("schedule").out, "no window\n")

    def test_inside_its_window_it_tells_since_when(self):
        shown = json.loads(self.run_host("schedule", self.window(-120, 120), "--json").out)

        self.assertTrue(shown["isInside"])
        now = datetime.datetime.now(datetime.timezone.utc)
        start = datetime.datetime.fromisoformat(shown["windowStart"].replace("Z", "+00:00"))
        self.assertLess(abs((now - start).total_seconds() - 7200), 120)
        following = datetime.datetime.fromisoformat(shown["nextStart"].replace("Z", "+00:00"))
        self.assertEqual(following - start, datetime.timedelta(days=1))

    def test_outside_its_window_it_tells_the_next_start(self):
        shown = json.loads(self.run_host("schedule", self.window(120, 240), "--json").out)

        self.assertFalse(shown["isInside"])
        self.assertNotIn("windowStart", shown)
        now = datetime.datetime.now(datetime.timezone.utc)
        following = datetime.datetime.fromisoformat(shown["nextStart"].replace("Z", "+00:00"))
        self.assertLess(abs((following - now).total_seconds() - 7200), 120)
        self.assertIn("outside, next start " + following.strftime("%Y-%m-%d %H:%M"), self.run_host("schedule").out)

    def test_is_kept_among_the_settings(self):
        said = self.run_host("schedule", "22:00-06:00").out

        self.assertIn("settings mode scheduled", said)
        self.assertEqual(self.run_host("settings", "schedule").out, "22:00-06:00\n")
        self.run_host("schedule", "none")
        self.assertEqual(self.run_host("settings", "schedule").out, "none\n")

    def test_refuses_what_is_no_window(self):
        for text in ("22:00", "noon-midnight", "22:00-22:00", "-", "22:00-06:00-07:00", "\x1b[31m"):
            with self.subTest(text):
                self.assertNotIn("\x1b", self.run_host("schedule", "--", text, expect=2).err)


class GenerateDefaultsTests(SettingsTest):
    def test_generate_takes_model_and_pace_from_the_settings(self):
        self.run_host("settings", "model", "small-music")
        self.run_host("settings", "pace", "gentle")
        request = self.place / "request.json"
        engine = self.script("engine", f"#!/bin/sh\nread line\nprintf '%s\\n' \"$line\" >> {request}\nexit 3\n")

        self.generate("--engine", engine, "--seed", 1, expect=1)
        self.generate("--engine", engine, "--seed", 1, "--model", "medium", "--pace", "background", expect=1)

        renders = [json.loads(line) for line in request.read_text().splitlines()]
        renders = [render for render in renders if render["request"] == "render"]
        self.assertEqual([(render["identity"]["model"], render["pace"]) for render in renders],
                         [("sa3_small-music_mlx_v2", "gentle"), ("sa3_medium_mlx_v2", "background")])

    def test_unreadable_settings_do_not_stop_the_music(self):
        self.write("{")

        done = self.generate("--seed", 1, seconds=1)

        self.assertIn("cannot be read", done.err)

    def test_a_break_is_taken_between_pieces_and_can_be_interrupted(self):
        for pace, seconds in (("gentle", 300), ("background", 120)):
            with self.subTest(pace):
                process = self.start("generate", "--mood", "designflow", "--seconds", "1", "--count", "2", "--pace", pace)
                for line in process.stderr:
                    if "Taking a short break" in line:
                        break
                self.assertEqual(line, f"2 of 2 · Taking a short break · {seconds} s\n")
                interrupt(process)
                process.communicate(timeout=30)

                self.assertEqual(process.returncode, 130)
        self.assertEqual(len(self.assert_complete()), 2)

    def test_after_the_break_the_next_piece_comes(self):
        done = self.generate("--break", 0.05, count=3, seconds=1)

        self.assertEqual(done.err.count("Taking a short break"), 2)
        self.assertEqual(len(self.assert_complete()), 3)

    def test_a_piece_that_is_there_already_needs_no_break(self):
        self.generate("--seed", 1, count=2, seconds=1)

        done = self.generate("--seed", 1, "--pace", "gentle", count=2, seconds=1)

        self.assertNotIn("break", done.err)


if __name__ == "__main__":
    unittest.main(verbosity=2)
