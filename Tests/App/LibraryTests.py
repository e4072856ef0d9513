"""The host's verbs `library list`, `show`, `measure`, `prune` and `trash`."""
import json
import math
import os
import re
import unittest
from urllib.parse import quote

from host import interrupt
from library import LibraryTest, fingerprint, holding, identity, write_wav


class ListTests(LibraryTest):
    def test_an_empty_library_is_an_empty_list_and_nothing_is_made(self):
        self.loops.rmdir()
        self.home.rmdir()

        self.assertEqual(self.library("list").out, "")
        self.assertEqual(self.library_json("list"), [])
        self.assertFalse(self.home.exists())

    def test_the_first_look_finds_the_pieces_that_ship_with_the_program(self):
        shipped = self.place / "shipped" / "Loops"
        shipped.mkdir(parents=True)
        (shipped / "first.m4a").write_bytes(b"music")
        seed = {"file": "first", "identity": identity(seed=1), "seconds": 120}
        (shipped / "seeds.json").write_text(json.dumps([seed]))
        self.environment["QUILLMERE_RESOURCES"] = str(shipped.parent)
        self.loops.rmdir()

        elsewhere = self.place / "mistyped"
        self.assertEqual(self.library_json("list", "--library", elsewhere), [])
        self.assertFalse(elsewhere.exists())

        mark = fingerprint(identity(seed=1))
        self.assertEqual([piece["fingerprint"] for piece in self.library_json("list")], [mark])
        self.assertEqual(self.file_of(mark).read_bytes(), b"music")
        self.library("prune", "--keep", "0", "--yes")
        self.assertEqual(self.marks(), [mark])

    def test_a_piece_that_ships_with_the_program_and_finds_no_room_is_told(self):
        shipped = self.place / "shipped" / "Loops"
        shipped.mkdir(parents=True)
        (shipped / "small.m4a").write_bytes(b"music")
        (shipped / "large.m4a").write_bytes(b"music" * 10_000)
        (shipped / "seeds.json").write_text(json.dumps(
            [{"file": file, "identity": identity(seed=seed), "seconds": 120}
             for seed, file in enumerate(("large", "small"))]))
        self.environment["QUILLMERE_RESOURCES"] = str(shipped.parent)
        self.loops.rmdir()

        first = self.run_without_space("library", "list", size=20_000)
        writing = self.run_without_space("library", "prune", "--keep", "0", "--yes", size=20_000)
        with_space = self.library("prune", "--keep", "0", "--yes")

        for done in (first, writing):
            self.assertEqual(done.returncode, 0, done.stderr)
            self.assertIn("could not be saved", done.stderr)
            self.assertIn(fingerprint(identity(seed=0)), done.stderr)
        self.assertEqual(with_space.err, "")
        self.assertEqual(len(self.library_json("list")), 2)

    def test_a_list_that_cannot_be_read_does_not_look_like_an_empty_library(self):
        self.put(1)
        for damage in ("[{", "{}", "\x00"):
            (self.loops / "manifest.json").write_text(damage)
            done = self.library("list")
            self.assertEqual(done.out, "")
            self.assertIn("cannot be read", done.err)
            self.assertIn("library recover", done.err)
            self.assertEqual((self.loops / "manifest.json").read_text(), damage)
        (self.loops / "manifest.json").write_text("[]")
        self.assertEqual(self.library("list").err, "")

    def test_a_list_that_cannot_be_read_is_told_though_what_ships_with_the_program_stands_in_its_place(self):
        shipped = self.place / "shipped" / "Loops"
        shipped.mkdir(parents=True)
        (shipped / "first.m4a").write_bytes(b"music")
        (shipped / "seeds.json").write_text(json.dumps(
            [{"file": "first", "identity": identity(seed=1), "seconds": 120}]))
        self.environment["QUILLMERE_RESOURCES"] = str(shipped.parent)
        self.put(2)
        (self.loops / "manifest.json").write_text(json.dumps(self.entries)[:-20])

        done = self.library("prune", "--keep", 60, "--yes")

        self.assertIn("cannot be read", done.err)
        self.assertIn("library recover", done.err)
        self.assertEqual(self.marks(), [fingerprint(identity(seed=1))])
        self.assertEqual(self.library("prune", "--keep", 60, "--yes").err, "")

    def test_lists_the_pieces_by_mood_and_then_by_fingerprint(self):
        marks = {mood: [self.put(seed, mood) for seed in (1, 2, 3)] for mood in ("winddown", "deepcode")}

        lines = self.library("list").out.splitlines()

        self.assertEqual([line.split()[:2] for line in lines],
                         [[mark, mood] for mood in ("deepcode", "winddown") for mark in sorted(marks[mood])])

    def test_json_holds_each_piece_with_its_file(self):
        mark = self.put(7, age=60)

        (piece,) = self.library_json("list")

        self.assertEqual(piece["fingerprint"], mark)
        self.assertEqual(piece["artifact"]["identity"], identity(seed=7))
        self.assertEqual(piece["bytes"], self.file_of(mark).stat().st_size)
        self.assertEqual(piece["modified"], "2023-11-14T22:12:20Z")

    def test_only_the_pieces_of_a_mood(self):
        self.put(1, "deepcode")
        mark = self.put(2, "my-old-mood")

        self.assertEqual([piece["fingerprint"] for piece in self.library_json("list", "--mood", "my-old-mood")], [mark])
        self.assertEqual(self.library_json("list", "--mood", "sprint"), [])
        self.assertIn('Did you mean "deepcode"?', self.library("list", "--mood", "deepcod", expect=2).err)

    def test_looking_neither_locks_nor_changes_the_library(self):
        self.put(1)
        (self.loops / ".quillmere-0.tmp").write_bytes(b"half")
        before = self.snapshot()

        self.library("list")
        self.library("show", fingerprint(identity(seed=1)))

        self.assertEqual(self.snapshot(), before)

    def test_shows_a_piece_by_the_beginning_of_its_fingerprint(self):
        mark = self.put(1)
        self.put(2)

        shown = self.library("show", mark[:6]).out

        self.assertIn("calm pads", shown)
        self.assertIn(mark, shown)
        self.assertEqual(self.library_json("show", mark)["artifact"]["seconds"], 120)

    def test_a_piece_that_is_not_there_gets_a_suggestion(self):
        mark = self.put(1)
        mistyped = "0" + mark[1:] if mark[0] != "0" else "1" + mark[1:]

        self.assertIn(f'Did you mean "{mark}"?', self.library("show", mistyped, expect=2).err)
        self.assertIn("no piece", self.library("show", mark[:3], expect=2).err)
        self.assertIn("no piece", self.library("show", "", expect=2).err)

    def test_no_mood_is_denied_where_moods_cannot_be_read(self):
        mood = self.run_json("moods", "new", "--calm-text", "a", "--energetic-text", "b")["id"]
        unreadable = ("openat:error=EIO", [self.home / "Moods.json"])

        self.assertEqual(self.library("list", "--mood", mood).out, "")
        done = self.run_failing(*unreadable, "library", "list", "--mood", mood, expect=1)
        self.assertIn("cannot be read", done.err)
        self.put(1, mood)
        self.assertIn(self.marks()[0], self.run_failing(*unreadable, "library", "list", "--mood", mood).out)
        done = self.run_failing(*unreadable, "library", "show", self.marks()[0])
        self.assertIn("not known: its mood cannot be read", done.out)
        self.assertIn("cannot be read", done.err)

    def test_a_recording_is_playable_though_its_mood_cannot_be_read(self):
        guide = {"format": "sa3.latents/1", "assetID": "a" * 64, "storageID": "my-x", "model": "medium",
                 "sampleCount": 44100, "latentCount": 11, "sourceName": "me.wav", "sourceOffset": 0, "strength": 0.5}
        self.put(1, "my-recorder")
        self.entries[0]["identity"]["audio"] = {"guide": guide, "offset": 0, "kind": "recording"}
        self.write_manifest()
        mark = self.library_json("list")[0]["fingerprint"]
        self.assertRegex(self.library("show", mark).out, r"playable +yes")
        (self.home / "Moods.json").write_text("[{")
        self.assertRegex(self.library("show", mark).out, r"playable +yes")

    def test_text_from_the_manifest_cannot_reach_the_terminal_as_it_is(self):
        mark = self.put(1, "my-\x1b[31mred\u202e", name="x.wav", prompt="\x1b]0;title\x07\u009b2J")

        for words in (["list"], ["show", self.library_json("list")[0]["fingerprint"]]):
            said = self.library(*words).out
            self.assertNotRegex(said, "[\x00-\x09\x0b-\x1f\x7f-\x9f\u202e]")

    def test_a_mistyped_verb_is_a_wrong_command_line(self):
        self.library("lst", expect=2)
        self.library(expect=2)

    def test_every_verb_has_help_with_an_example(self):
        helped = self.run_host("library", "--help", home=False).out
        verbs = re.findall(r"(?m)^  ([a-z]+) ", helped.split("Subcommands:")[1])

        self.assertGreaterEqual(len(verbs), 5)
        for verb in verbs:
            self.assertIn(f"Example: quillmere library {verb}", self.library(verb, "--help", home=False).out)


class MeasureTests(LibraryTest):
    def test_measures_what_lacks_a_measurement_and_keeps_it(self):
        mark = self.put(1, audio=None)
        # A sine at 997 Hz in both channels at a peak of -20 dBFS reads -20 LUFS (EBU Tech 3341).
        write_wav(self.loops / f"designflow_b2_{mark}.wav", 2.0, 997.0, 10 ** (-20 / 20))

        done = self.library_json("measure")

        self.assertAlmostEqual(done["measured"][mark]["integratedLUFS"], -20.0, delta=0.1)
        self.assertAlmostEqual(done["measured"][mark]["peak"], 0.1, delta=0.001)
        self.assertEqual(done["failed"], {})
        self.assertEqual(self.manifest()[0]["quality"]["loudness"], done["measured"][mark])
        self.assertEqual(self.library_json("measure"), {"measured": {}, "failed": {}})

    def test_silence_is_measured_as_silence(self):
        mark = self.put(1, audio=None)
        write_wav(self.loops / f"designflow_b2_{mark}.wav", 1.0, level=0)

        self.assertIn("silent, peak 0.000", self.library("measure").out)

    def test_audio_that_cannot_be_measured_is_a_failure_and_the_others_are_measured(self):
        damaged = self.put(1)
        self.file_of(damaged).write_bytes(b"RIFF")
        other_rate = self.put(2, audio=None)
        write_wav(self.loops / f"designflow_b2_{other_rate}.wav", 0.1, rate=44100)
        good = self.put(3)

        done = json.loads(self.library("measure", "--json", expect=1).out)

        self.assertEqual(sorted(done["failed"]), sorted([damaged, other_rate]))
        self.assertEqual(list(done["measured"]), [good])

    def test_a_failure_whose_text_is_not_utf8_is_told_like_any_other(self):
        mark = self.put(1, audio=None)
        (self.loops / os.fsdecode(b"\xff.wav")).write_bytes(b"RIFF")
        self.entries[0]["url"] = f"file://{self.loops}/%FF.wav"
        self.write_manifest()

        done = json.loads(self.library("measure", "--json", expect=1).out)

        self.assertEqual(list(done["failed"]), [mark])

    def test_a_library_that_cannot_be_saved_is_told_apart(self):
        mark = self.put(1)
        before = self.manifest()

        done = self.run_without_space("library", "measure")

        self.assertEqual(done.returncode, 5, done.stderr)
        self.assertIn("could not be saved", done.stderr)
        self.assertEqual(self.manifest(), before)
        self.assertTrue(self.file_of(mark).exists())


class PruneTests(LibraryTest):
    def prune(self, *arguments, **options):
        return self.library_json("prune", *arguments, **options)

    def test_prints_its_plan_and_changes_nothing(self):
        self.put(1, age=10)
        old = self.put(2, age=20)
        before = self.snapshot()

        plan = self.prune("--keep", 2)
        said = self.library("prune", "--keep", 2).out

        self.assertFalse(plan["isDone"])
        self.assertEqual([piece["fingerprint"] for piece in plan["pieces"]], [old])
        self.assertEqual(plan["bytes"], self.file_of(old).stat().st_size)
        self.assertIn("--yes deletes", said)
        self.assertIn(old, said)
        self.assertEqual(self.snapshot(), before)

    def test_keeps_of_each_mood_the_newest_by_file_time(self):
        marks = {}
        for mood in ("deepcode", "winddown"):
            for age in (50, 10, 40, 20, 30):
                marks[mood, age] = self.put(age, mood, seconds=60, age=age)

        done = self.prune("--keep", 3, "--yes")

        gone = [marks[mood, age] for mood in ("deepcode", "winddown") for age in (50, 40)]
        self.assertTrue(done["isDone"])
        self.assertEqual([piece["fingerprint"] for piece in done["pieces"]], gone, "by mood, the oldest first")
        self.assertEqual(self.marks(), sorted(set(marks.values()) - set(gone)))
        self.assertEqual(len(self.audio()), 6)

    def test_the_last_piece_that_is_kept_may_reach_beyond_the_minutes(self):
        new = self.put(1, seconds=90, age=1)
        older = self.put(2, seconds=90, age=2)
        self.put(3, seconds=90, age=3)

        self.prune("--keep", 2, "--yes")

        self.assertEqual(self.marks(), sorted([new, older]))

    def test_keeping_nothing_deletes_all_but_recordings_and_files_elsewhere(self):
        self.put(1)
        outside = self.place / "outside.wav"
        write_wav(outside, 0.1)
        self.entries.append({"identity": identity(seed=3), "url": f"file://{outside}", "seconds": 9})
        self.write_manifest()

        done = self.prune("--keep", 0, "--yes")

        self.assertEqual(len(done["pieces"]), 1)
        self.assertEqual(done["kept"], 1)
        self.assertEqual(self.audio(), [])
        self.assertTrue(outside.exists())

    def vault(self, of):
        self.home.joinpath("saved.json").write_text(json.dumps({
            "schema": "quillmere.recipes/1",
            "recipes": [{"schema": "quillmere.recipe/2", "name": "Kept", "identity": of,
                         "fingerprint": fingerprint(of)}]}))

    def test_keeps_what_is_in_the_vault(self):
        mark = self.put(1)
        self.put(2)
        self.vault(identity(seed=1))

        self.prune("--keep", 0, "--yes")

        self.assertEqual(self.marks(), [mark])

    def test_deletes_nothing_while_the_vault_cannot_be_read(self):
        self.put(1)
        vault = self.home / "saved.json"
        for make in (lambda: vault.write_text("{"), lambda: vault.symlink_to(self.place / "away.json"), vault.mkdir):
            vault.unlink(missing_ok=True)
            make()
            before = self.snapshot(".lock")

            done = self.library("prune", "--keep", 0, "--yes", expect=1)

            self.assertIn("saved.json", done.err)
            self.assertEqual(self.snapshot(".lock"), before)

    def test_keeps_what_is_in_a_vault_behind_a_link(self):
        mark = self.put(1)
        self.put(2)
        self.vault(identity(seed=1))
        (self.home / "saved.json").rename(self.place / "elsewhere.json")
        (self.home / "saved.json").symlink_to(self.place / "elsewhere.json")

        self.prune("--keep", 0, "--yes")

        self.assertEqual(self.marks(), [mark])

    def test_keeps_what_is_in_the_largest_vault(self):
        mark = self.put(1)
        self.put(2)
        self.vault(identity(seed=1))
        with (self.home / "saved.json").open("a") as file:
            file.write(" " * (64 * 1024 * 1024 - file.tell()))

        self.prune("--keep", 0, "--yes")

        self.assertEqual(self.marks(), [mark])

    def test_deletes_nothing_while_somebody_may_be_saving_a_recipe(self):
        mark = self.put(1)
        descriptor = holding(self.home)

        refused = self.library("prune", "--keep", 0, "--yes", expect=4)
        self.prune("--keep", 0)
        os.close(descriptor)

        self.assertIn("a patient holder", refused.err)
        self.assertEqual(self.marks(), [mark])
        self.prune("--keep", 0, "--yes")
        self.assertEqual(self.marks(), [])

    def test_keeps_the_seeds_of_the_application(self):
        seed = self.put(1)
        self.put(2)
        resources = self.place / "resources"
        resources.mkdir()
        (resources / "seeds.json").write_text(json.dumps(
            [{"file": "one", "identity": identity(seed=1), "seconds": 1}]))

        self.prune("--keep", 0, "--yes", environment={"QUILLMERE_RESOURCES": str(resources)})

        self.assertEqual(self.marks(), [seed])

    def test_costs_the_user_no_list_where_the_library_is_the_home_folder(self):
        names = ("Moods.json", "saved.json", "settings.json")
        lists = {"Moods.json": {"version": 1, "moods": []}, "settings.json": {"pace": "gentle"},
                 "saved.json": {"schema": "quillmere.recipes/1", "recipes": []}}
        for name in names:
            (self.home / name).write_text(json.dumps(lists[name]))
        (self.home / "manifest.json").write_text(json.dumps(
            [{"identity": identity(seed=seed), "url": "file://" + quote(str(self.home / name)), "seconds": 1}
             for seed, name in enumerate(names)]))

        self.prune("--keep", 0, "--yes", "--library", self.home)

        for name in names:
            self.assertEqual(json.loads((self.home / name).read_text()), lists[name])

    def test_forgets_the_digests_of_what_is_gone(self):
        gone, kept = self.put(1, age=2), self.put(2, age=1)
        (self.loops / "digests.json").write_text(json.dumps(
            {"version": 1, "digests": {gone: "0" * 64, kept: "1" * 64}}))

        self.prune("--keep", 1, "--yes")

        self.assertEqual(json.loads((self.loops / "digests.json").read_text()),
                         {"version": 1, "digests": {kept: "1" * 64}})

    def keep_digests(self, *marks):
        text = json.dumps({"version": 1, "digests": {mark: "0" * 64 for mark in marks}})
        (self.loops / "digests.json").write_text(text)
        return text

    def test_what_may_not_be_deleted_is_not_called_deleted(self):
        marks = [self.put(1), self.put(2)]
        self.put_behind_a_closed_folder(3)
        digests = self.keep_digests(*marks)

        for form in ((), ("--json",)):
            done = self.library_as_a_bound_user("prune", "--keep", 0, "--yes", *form, expect=1)

            self.assertIn("Nothing is removed", done.err)
            self.assertEqual(len(self.audio()), 2)
            self.assertEqual((self.loops / "digests.json").read_text(), digests)
            if form:
                told = json.loads(done.out)
                self.assertEqual((told["isDone"], told["bytes"]), (False, 0))
                self.assertEqual([piece["isDeleted"] for piece in told["pieces"]], [False, False])
            else:
                self.assertEqual(done.out.count("(not deleted)"), 2)
                self.assertIn("Deleted 0 of 3 pieces", done.out)

    def test_a_file_that_stays_is_told_and_keeps_its_digest(self):
        (self.loops / "fixed").mkdir()
        gone, stays = self.put(1), self.put(2, name="fixed/x.wav")
        self.keep_digests(gone, stays)
        (self.loops / "fixed").chmod(0o555)
        self.addCleanup((self.loops / "fixed").chmod, 0o755)

        done = self.library_as_a_bound_user("prune", "--keep", 0, "--yes", expect=1)

        (line,) = [line for line in done.out.splitlines() if line.endswith("(its file stays)")]
        self.assertIn(stays, line)
        self.assertIn("Deleted 1 of 2 pieces", done.out)
        self.assertTrue((self.loops / "fixed" / "x.wav").exists())
        self.assertEqual(list(json.loads((self.loops / "digests.json").read_text())["digests"]), [stays])

    def test_who_may_not_write_a_vault_may_prune(self):
        self.put(1)
        self.home.chmod(0o555)
        self.addCleanup(self.home.chmod, 0o755)

        done = self.library_as_a_bound_user("prune", "--keep", 0, "--yes")

        self.assertIn("Deleted 1 of 1", done.out)

    def test_a_library_in_use_is_not_pruned(self):
        self.put(1)
        process = self.start("generate", "--mood", "designflow", "--count", "500", "--json")
        process.stdout.readline()

        refused = self.library("prune", "--keep", 0, "--yes", expect=4)
        plan = self.prune("--keep", 0)
        interrupt(process)
        process.communicate(timeout=30)

        self.assertIn(str(process.pid), refused.err)
        self.assertGreaterEqual(len(plan["pieces"]), 1, "the plan can be seen all the same")

    def test_a_library_that_cannot_be_saved_is_an_error(self):
        self.put(1)
        done = self.run_without_space("library", "prune", "--keep", "0", "--yes")

        self.assertEqual(done.returncode, 5, done.stderr)
        self.assertIn("could not be saved", done.stderr)

    def test_wrong_minutes_are_a_wrong_command_line(self):
        for words in ([], ["--keep", "-1"], ["--keep", "many"], ["--keep", "nan"], ["--keep", "inf"]):
            self.library("prune", *words, expect=2)


class TrashTests(LibraryTest):
    def setUp(self):
        super().setUp()
        (self.place / "user").mkdir()  # the trash is that of the home folder's file system

    def test_prints_what_it_would_move_and_changes_nothing(self):
        mark = self.put(1)
        before = self.snapshot()

        said = self.library("trash", mark[:8]).out

        self.assertIn(mark, said)
        self.assertIn("--yes", said)
        self.assertEqual(self.snapshot(), before)

    def test_moves_the_named_pieces_to_the_trash(self):
        first, second, third = (self.put(seed) for seed in (1, 2, 3))
        content = self.file_of(first).read_bytes()
        name = self.file_of(first).name

        done = self.library_json("trash", first, second, "--yes")

        self.assertEqual([(piece["fingerprint"], piece["isMoved"]) for piece in done["pieces"]],
                         [(first, True), (second, True)])
        self.assertEqual(self.marks(), [third])
        self.assertEqual((self.place / "data/Trash/files" / name).read_bytes(), content)

    def test_moves_all_pieces_of_a_mood(self):
        self.put(1, "deepcode")
        self.put(2, "deepcode")
        kept = self.put(3, "sprint")

        self.library("trash", "--mood", "deepcode", "--yes")

        self.assertEqual(self.marks(), [kept])

    def test_what_cannot_be_moved_stays(self):
        (self.place / "data").write_text("no folder can be made here")
        mark = self.put(1)
        before = self.file_of(mark).read_bytes()

        done = self.library("trash", mark, "--yes", expect=1)

        self.assertIn("not moved", done.out)
        self.assertEqual(self.file_of(mark).read_bytes(), before)
        self.assertEqual(self.marks(), [mark])

    def test_what_may_be_another_pieces_file_stays_and_the_work_failed(self):
        mark = self.put(1)
        self.put_behind_a_closed_folder(2)

        done = self.library_as_a_bound_user("trash", mark, "--yes", expect=1)

        self.assertIn("Moved 0 of 1", done.out)
        self.assertIn("Nothing is removed", done.err)
        self.assertEqual(len(self.audio()), 1)

    def test_a_library_that_cannot_be_saved_is_an_error(self):
        mark = self.put(1)
        for seed in range(2, 8):
            self.put(seed)

        done = self.run_without_space("library", "trash", mark, "--yes", size=1024)  # enough for the trash's own record

        self.assertIn("Moved 1 of 1", done.stdout)
        self.assertEqual(done.returncode, 5, done.stderr)
        self.assertIn("could not be saved", done.stderr)

    def test_something_must_be_named(self):
        self.library("trash", "--yes", expect=2)
        self.library("trash", "0000000000000000", expect=2)


if __name__ == "__main__":
    unittest.main(verbosity=2)
