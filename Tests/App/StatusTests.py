"""The host's verbs `status` and `engines`."""
import json
import unittest

from host import interrupt
from library import LibraryTest, identity


class StatusTests(LibraryTest):
    def status(self, **options):
        return self.run_json("status", **options)

    def test_an_empty_library_says_so_and_nothing_is_made(self):
        self.loops.rmdir()
        self.home.rmdir()

        status = self.status()

        self.assertEqual(status["material"], {"text": "No saved music yet", "textWhilePlaying": "No saved music yet",
                                              "seconds": 0, "pieces": 0, "bytes": 0, "ready": {}})
        self.assertEqual(status["horizon"]["value"], "oneHour")
        self.assertFalse(status["horizon"]["isSatisfied"])
        self.assertNotIn("inUseBy", status)
        self.assertNotIn("lastSaveError", status)
        self.assertFalse(self.home.exists())

    def test_counts_what_there_is(self):
        marks = [self.put(1, "deepcode", seconds=300), self.put(2, "deepcode", seconds=300), self.put(3, "winddown")]
        self.run_host("settings", "horizon", 20)

        status = self.status()

        self.assertEqual(status["material"]["seconds"], 720)
        self.assertEqual(status["material"]["text"], "Paused · 12:00 saved")
        self.assertEqual(status["material"]["textWhilePlaying"], "12:00 of 20:00 saved")
        self.assertEqual(status["material"]["ready"], {"deepcode": 2, "winddown": 1})
        self.assertEqual(status["material"]["bytes"], sum(self.file_of(mark).stat().st_size for mark in marks))
        said = self.run_host("status").out
        self.assertIn("Paused · 12:00 saved", said)
        self.assertIn("20 minutes · not reached yet", said)
        self.assertIn("Saved music before it repeats · ~220 MB on disk", said)

    def test_tells_when_the_horizon_is_reached(self):
        self.put(1, seconds=1200)
        self.run_host("settings", "horizon", 20)

        self.assertTrue(self.status()["horizon"]["isSatisfied"])
        self.assertIn("20 minutes · reached", self.run_host("status").out)

    def test_moods_that_cannot_be_read_are_told_where_their_music_counts(self):
        self.generate(seconds=2)
        moods = self.home / "Moods.json"
        mood = self.run_json("moods", "new", "--calm-text", "a", "--energetic-text", "b")["id"]
        self.assertEqual(self.run_failing("openat:error=EIO", [moods], "status").err, "")
        self.generate(mood=mood, seconds=2)
        done = self.run_failing("openat:error=EIO", [moods], "status")
        self.assertIn(f'The moods "{moods}" cannot be read: ', done.err)

    def test_music_of_a_mood_that_is_gone_is_not_ready(self):
        self.put(1, "my-gone")

        self.assertEqual(self.status()["material"]["ready"], {"my-gone": 0})

    def test_mode_schedule_and_pace_are_those_of_the_settings(self):
        for name, value in (("mode", "scheduled"), ("schedule", "22:00-06:00"), ("pace", "gentle")):
            self.run_host("settings", name, value)

        status = self.status()

        self.assertEqual(status["mode"]["label"], "On a schedule")
        self.assertEqual(status["mode"]["schedule"], {"startMinute": 1320, "endMinute": 360})
        self.assertIn("nextStart", status["mode"])
        self.assertEqual(status["pace"]["label"], "Energy Saver")
        self.assertIn(status["pace"].get("memoryPressure", "normal"), ("normal", "warning", "critical"))
        if status["pace"].get("memoryPressure", "normal") == "normal":
            self.assertTrue(status["pace"]["mayGenerate"])
        if status["pace"].get("memoryPressure") in ("warning", "critical"):
            self.assertFalse(status["pace"]["mayGenerate"])

    def test_tells_who_is_writing(self):
        process = self.start("generate", "--mood", "designflow", "--count", "500", "--json")
        process.stdout.readline()

        status = self.status()
        interrupt(process)
        process.communicate(timeout=30)

        self.assertIn(str(process.pid), status["inUseBy"])
        self.assertEqual(status["material"]["textWhilePlaying"], "Creating the first track…")

    def test_looking_changes_nothing(self):
        self.put(1)
        (self.loops / "manifest.json").write_text("[{")
        before = self.snapshot()

        self.status()

        self.assertEqual(self.snapshot(), before)

    def test_hostile_lengths_do_no_harm(self):
        for seed, seconds in enumerate((1e300, -5, 0, 1e18)):
            self.put(seed, seconds=seconds)

        self.assertIn("saved", self.run_host("status").out)


class EnginesTests(LibraryTest):
    def test_lists_every_model_with_the_engines_build(self):
        engines = self.run_json("engines")

        self.assertEqual([model["identityModel"] for model in engines["models"]],
                         ["sa3_medium_mlx_v2", "sa3_small-music_mlx_v2", "sa3_medium_coreml_v1",
                          "sa3_small-music_coreml_v1"])
        for model in engines["models"]:
            self.assertTrue(model["isAvailable"])
            self.assertTrue(model["engineBuild"].startswith("tonebed-"))
        self.assertIn("tonebed-", self.run_host("engines").out)

    def test_asks_another_engine(self):
        engine = self.script("engine", r"""#!/bin/sh
read request
printf '%s\n' 'result {"engineBuild":"mine-1"}'
""")

        self.assertEqual({model["engineBuild"] for model in self.run_json("engines", "--engine", engine)["models"]},
                         {"mine-1"})
        self.assertIn("mine-1", self.run_host("engines", "--engine", engine).out)

    def test_an_engine_that_is_not_there_has_no_models(self):
        done = self.run_host("engines", "--json", "--engine", "/no/such/engine", expect=1)

        self.assertEqual([model["isAvailable"] for model in json.loads(done.out)["models"]], [False] * 4)
        self.run_host("engines", "--engine", "'unclosed", expect=1)


if __name__ == "__main__":
    unittest.main(verbosity=2)
