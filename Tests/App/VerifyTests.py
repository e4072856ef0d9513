"""The host's verbs `library verify` and `library migrate`, and the digests that they compare with."""
import json
import os
import time
import unittest

from host import interrupt
from library import LibraryTest, holding, pcm_digest, write_wav


class VerifyTest(LibraryTest):
    def digests(self):
        return json.loads((self.loops / "digests.json").read_text())["digests"]

    def keep_digest(self, **digests):
        (self.loops / "digests.json").write_text(json.dumps({"version": 1, "digests": digests}))

    def verify(self, expect=0):
        return json.loads(self.library("verify", "--json", expect=expect).out)


class VerifyTests(VerifyTest):
    def test_a_generated_piece_is_proved_by_the_digest_that_was_kept(self):
        self.generate("--seed", 1, count=2, seconds=2)

        self.assertEqual(sorted(self.digests().values()), sorted(pcm_digest(file) for file in self.audio()))
        self.assertEqual(self.verify(), {"isSound": True, "proved": 2, "unproved": 0, "damaged": [], "missing": [],
                                         "unlisted": [], "unreadable": []})

    def test_a_mistyped_place_is_not_called_sound(self):
        place = self.place / "mistyped"
        for words, options in ((("--library", place), {}), (("--home", place), {"home": False}),
                               ((), {"home": False, "environment": {"QUILLMERE_HOME": str(place)}})):
            done = self.library("verify", *words, expect=1, **options)
            self.assertIn("There is no library", done.err)
            self.assertFalse(place.exists())

    def test_a_home_may_be_named_in_any_form(self):
        self.generate("--seed", 1, seconds=1)
        os.symlink(self.home / "Loops", self.place / "link")

        for home in ("./home", "home/.", "home//", "nothing/../home", "link/.."):
            self.library("verify", "--home", home, home=False, cwd=self.place)
            self.library("verify", home=False, cwd=self.place, environment={"QUILLMERE_HOME": home})
        self.library("verify", "--home", ".", home=False, cwd=self.home)

    def test_one_changed_sample_is_damage(self):
        mark = self.put(1)
        file = self.file_of(mark)
        self.keep_digest(**{mark: pcm_digest(file)})
        content = bytearray(file.read_bytes())
        content[-1] ^= 1
        file.write_bytes(content)

        found = self.verify(expect=3)

        self.assertEqual([finding["fingerprint"] for finding in found["damaged"]], [mark])
        self.assertEqual(found["damaged"][0]["file"], str(file))
        self.assertIn("damaged", self.library("verify", expect=3).out)

    def test_audio_that_cannot_be_decoded_whole_is_damage(self):
        for seed, cut in ((1, lambda content: content[:-200]), (2, lambda content: content[:44]), (3, lambda _: b""),
                          (4, lambda content: b"JUNK" + content[4:])):
            file = self.file_of(self.put(seed, seconds=0.1))
            file.write_bytes(cut(file.read_bytes()))
        folder = self.put(5, audio=None, name="folder.wav")
        (self.loops / "folder.wav").mkdir()

        found = self.verify(expect=3)

        self.assertEqual(len(found["damaged"]), 5)
        self.assertIn(folder, [finding["fingerprint"] for finding in found["damaged"]])

    def test_audio_of_another_length_is_damage_even_without_a_digest(self):
        self.put(1, seconds=120, audio=0.5)
        self.put(2, seconds=0.5, audio=0.5)

        found = self.verify(expect=3)

        self.assertEqual((len(found["damaged"]), found["unproved"]), (1, 1))

    def test_missing_and_unlisted_files_are_told(self):
        mark = self.put(1, audio=None)
        self.put(2, seconds=0.1)
        write_wav(self.loops / "mine.wav", 0.1)
        (self.loops / "below").mkdir()
        (self.loops / "below" / "notes.txt").write_text("x")
        (self.loops / "link.wav").symlink_to("/nowhere")
        for name in ("Moods.json", ".Moods.lock", "saved.json", ".saved.lock", "settings.json"):
            (self.loops / name).write_text("")  # of who keeps the library where the lists lie

        found = self.verify(expect=3)

        self.assertEqual([finding["fingerprint"] for finding in found["missing"]], [mark])
        self.assertEqual(found["unlisted"], [str(self.loops / name) for name in
                                             ("below/notes.txt", "link.wav", "mine.wav")])

    def test_a_folder_that_cannot_be_looked_at_is_told_and_the_others_are_looked_through(self):
        self.generate("--seed", 1, seconds=1)
        (self.loops / "after").mkdir()
        (self.loops / "after" / "mine.wav").write_text("x")
        below = self.loops / "deep"
        folder = os.open(self.loops, os.O_RDONLY)
        for name in ["deep"] + ["x" * 255] * 20:  # longer than a path can be
            os.mkdir(name, dir_fd=folder)
            inner = os.open(name, os.O_RDONLY, dir_fd=folder)
            os.close(folder)
            folder = inner
        os.close(folder)

        found = self.verify(expect=3)

        self.assertEqual(len(found["unreadable"]), 1)
        self.assertIn(str(below), found["unreadable"][0])
        self.assertIn("File name too long", found["unreadable"][0])
        self.assertEqual(found["unlisted"], [str(self.loops / "after" / "mine.wav")])
        self.assertIn("unreadable", self.library("verify", expect=3).out)

    def test_a_folder_that_its_reader_may_not_open_is_told(self):
        mark = self.put(1, seconds=0.1)
        (self.loops / "closed").mkdir(mode=0)
        (self.loops / "listed").mkdir()
        (self.loops / "listed" / "mine.wav").write_text("x")
        (self.loops / "listed").chmod(0o444)
        # The rights do not bind who runs everything.
        user = {"user": 65534, "group": 65534, "extra_groups": []} if os.geteuid() == 0 else {}
        self.place.chmod(0o755)
        (self.place / "run").mkdir(mode=0o777)
        (self.place / "run").chmod(0o777)

        found = self.run_host("library", "verify", "--json", expect=3, **user,
                              environment={"TMPDIR": str(self.place / "run")})
        (self.loops / "listed").chmod(0o755)
        (self.loops / "closed").chmod(0o755)

        unreadable = json.loads(found.out)["unreadable"]
        self.assertEqual(len(unreadable), 2, unreadable)
        self.assertIn(str(self.loops / "closed"), unreadable[0])
        self.assertIn(str(self.loops / "listed" / "mine.wav"), unreadable[1])
        self.assertEqual(json.loads(found.out)["damaged"], [], mark)

    def test_a_place_behind_a_link_and_back_is_where_the_link_ends(self):
        (self.place / "far" / "folder").mkdir(parents=True)
        (self.place / "near").mkdir()
        (self.place / "near" / "link").symlink_to(self.place / "far" / "folder")
        (self.place / "near" / "Loops").mkdir()
        (self.place / "far" / "Loops").mkdir()
        (self.place / "far" / "Loops" / "mine.wav").write_text("x")
        place = f"{self.place}/near/link/../Loops"

        found = json.loads(self.library("verify", "--json", "--library", place, expect=3).out)

        self.assertEqual(found["unlisted"], [str(self.place / "far" / "Loops" / "mine.wav")])

    def test_the_librarys_own_records_and_working_folders_are_no_strays(self):
        self.generate("--seed", 1, seconds=1)
        for name in ("manifest.unreadable-2024-05-01T10-20-30Z.json", "digests.before-2024-05-01T10-20-30Z.json"):
            (self.loops / name).write_text("x")
        for name in ("Render-01234567-89AB-4DEF-8123-456789ABCDEF", ".Render-01234567-89AB-4DEF-8123-456789ABCDEF"):
            (self.loops / name).mkdir()
            (self.loops / name / ".lock").write_text("")
            (self.loops / name / "audio.wav").write_text("half")

        self.assertTrue(self.verify()["isSound"])

    def test_a_users_folder_that_is_named_like_a_working_folder_is_none(self):
        self.generate("--seed", 1, seconds=1)
        for name in ("Render-holiday", ".Render-holiday"):
            (self.loops / name).mkdir()
            (self.loops / name / ".lock").write_text("")
            (self.loops / name / "song.wav").write_text("mine")

        self.assertEqual([file for file in self.verify(expect=3)["unlisted"] if file.endswith(".wav")],
                         [str(self.loops / name / "song.wav") for name in (".Render-holiday", "Render-holiday")])

    def test_changes_nothing(self):
        self.put(1, seconds=0.1)
        self.put(2, audio=None)
        self.put(3, audio=0.1)
        (self.loops / "stray").write_text("x")
        (self.loops / ".quillmere-00000000-0000-4000-8000-000000000000.tmp").write_text("half")
        before = self.snapshot()

        self.verify(expect=3)

        self.assertEqual(self.snapshot(), before)

    def test_records_that_cannot_be_read_are_damage(self):
        self.put(1, seconds=0.1)
        (self.loops / "digests.json").write_text('{"version": 1, "digests": {')
        self.assertEqual(len(self.verify(expect=3)["unreadable"]), 1)

        (self.loops / "digests.json").write_text('{"version": 1, "digests": {"x": "y"}}')
        self.assertEqual(len(self.verify(expect=3)["unreadable"]), 1)

        (self.loops / "digests.json").unlink()
        (self.loops / "manifest.json").write_text("[{")
        found = self.verify(expect=3)
        self.assertEqual((len(found["unreadable"]), found["unlisted"]), (1, []))

    def test_an_empty_library_is_sound(self):
        self.assertTrue(self.verify()["isSound"])
        self.assertEqual(list(self.loops.iterdir()), [])

    def test_so_is_one_that_is_not_there_yet_where_nobody_named_a_place(self):
        done = self.library("verify", "--json", home=False)

        self.assertTrue(json.loads(done.out)["isSound"])
        self.assertFalse((self.place / "data").exists())

    def test_verifies_while_another_process_writes(self):
        process = self.start("generate", "--mood", "designflow", "--count", "500", "--seconds", "1", "--json")
        while "finished" not in process.stdout.readline():
            pass
        for _ in range(5):
            self.assertTrue(self.verify()["isSound"])
        interrupt(process)
        process.communicate(timeout=30)

        self.assertTrue(self.verify()["isSound"])

    def test_a_file_that_somebody_may_be_about_to_list_is_no_stray(self):
        write_wav(self.loops / "fresh.wav", 0.1)
        write_wav(self.loops / "old.wav", 0.1)
        moment = time.time() - 3600
        os.utime(self.loops / "old.wav", (moment, moment))

        descriptor = holding(self.loops)
        self.assertEqual(self.verify(expect=3)["unlisted"], [str(self.loops / "old.wav")])

        os.close(descriptor)
        self.assertEqual(len(self.verify(expect=3)["unlisted"]), 2, "nobody is at work any more")

    def test_digests_that_cannot_be_read_are_kept_aside(self):
        (self.loops / "digests.json").write_text("damaged")

        done = self.generate("--seed", 1, seconds=1)

        self.assertIn("digests.json", done.err)
        (kept,) = self.loops.glob("digests.unreadable-*.json")
        self.assertEqual(kept.read_text(), "damaged")
        self.assertEqual(len(self.digests()), 1)

    def test_a_digest_that_cannot_be_kept_is_told(self):
        (self.loops / "digests.json" / "in the way").mkdir(parents=True)

        done = self.generate("--seed", 1, seconds=1, expect=5)

        self.assertIn("digests", done.err)
        self.assertEqual(len(self.manifest()), 1)

    def test_text_from_files_cannot_reach_the_terminal_as_it_is(self):
        self.put(1, audio=None, name="\x1b[31m.wav")
        (self.loops / "\x1b]0;x\x07.wav").write_text("x")
        (self.loops / os.fsdecode(b"\xff\x9b.wav")).write_text("x")

        said = self.library("verify", expect=3)

        self.assertNotRegex(said.out + said.err, "[\x00-\x09\x0b-\x1f\x7f-\x9f]")
        self.assertEqual(len(self.verify(expect=3)["unlisted"]), 2)


class MigrateTests(VerifyTest):
    def piece(self, seed, seconds=0.5):
        return self.put(seed, seconds=seconds, audio=seconds)

    def test_a_dry_run_lists_the_candidates_and_changes_nothing(self):
        marks = sorted([self.piece(1), self.piece(2)])
        before = self.snapshot()

        self.assertEqual(self.library_json("migrate", "--dry-run"), {"candidates": marks})
        self.assertIn("2 pieces would be migrated", self.library("migrate", "--dry-run").out)
        self.assertEqual(self.snapshot(), before)

    def test_packs_every_piece_and_proves_that_it_is_the_same(self):
        digests = {mark: pcm_digest(self.file_of(mark)) for mark in (self.piece(1), self.piece(2))}
        size = {mark: self.file_of(mark).stat().st_size for mark in digests}

        done = self.library_json("migrate")

        self.assertEqual(sorted(piece["fingerprint"] for piece in done["migrated"]), sorted(digests))
        for piece in done["migrated"]:
            file = self.file_of(piece["fingerprint"])
            self.assertEqual(file.suffix, ".m4a")
            self.assertEqual(piece["bytesBefore"], size[piece["fingerprint"]])
            self.assertEqual(piece["bytesAfter"], file.stat().st_size)
            self.assertEqual(int(file.stat().st_mtime), 1_700_000_000, "a piece stays as old as its music")
        self.assertEqual(self.audio(), [])
        self.assertEqual(self.digests(), digests)
        self.assertEqual(self.verify()["proved"], 2)
        self.assertEqual(self.library_json("migrate"), {"migrated": [], "failed": []})

    def test_damage_is_not_packed(self):
        mark = self.piece(1)
        self.keep_digest(**{mark: "0" * 64})
        other = self.piece(2)

        done = json.loads(self.library("migrate", "--json", expect=3).out)

        self.assertEqual([piece["fingerprint"] for piece in done["failed"]], [mark])
        self.assertEqual([piece["fingerprint"] for piece in done["migrated"]], [other])
        self.assertEqual(self.file_of(mark).suffix, ".wav")
        self.assertEqual(self.digests()[mark], "0" * 64)

    def test_nothing_is_packed_while_the_digests_cannot_be_read(self):
        mark = self.piece(1)
        self.piece(2)
        whole = json.dumps({"version": 1, "digests": {mark: "0" * 64}})
        one_odd = json.dumps({"version": 1, "digests": {mark: "odd"}})
        for text in (whole[:-20], one_odd):
            (self.loops / "digests.json").write_text(text)
            before = self.snapshot(".lock")

            done = self.library("migrate", "--json", expect=1)

            self.assertIn("digests.json", done.err)
            self.assertEqual(self.snapshot(".lock"), before)

        (self.loops / "digests.json").unlink()
        self.library("migrate")

    def test_a_piece_that_cannot_be_packed_stays_as_it_is(self):
        mark = self.put(1, audio=None)
        write_wav(self.loops / f"designflow_b2_{mark}.wav", 0.1, rate=44100)
        before = self.file_of(mark).read_bytes()

        done = json.loads(self.library("migrate", "--json", expect=1).out)

        self.assertEqual([piece["fingerprint"] for piece in done["failed"]], [mark])
        self.assertEqual(self.file_of(mark).read_bytes(), before)
        self.assertEqual(sorted(self.loops.glob(".*.m4a")), [])

    def test_interrupting_leaves_every_piece_whole(self):
        for seed in range(30):
            self.put(seed, seconds=0.5, audio=0.5)
        process = self.start("library", "migrate", "--json")
        process.stderr.readline()
        process.stderr.readline()

        interrupt(process)
        out, _ = process.communicate(timeout=30)

        self.assertEqual(process.returncode, 130)
        done = json.loads(out)
        self.assertLess(len(done["migrated"]), 30)
        self.assertEqual(done["failed"], [])
        found = self.verify()
        self.assertEqual(found["proved"], len(done["migrated"]))
        self.assertEqual(found["proved"] + found["unproved"], 30)

    def test_a_library_in_use_is_not_migrated(self):
        self.piece(1)
        process = self.start("generate", "--mood", "designflow", "--count", "500", "--json")
        process.stdout.readline()

        self.library("migrate", expect=4)
        interrupt(process)
        process.communicate(timeout=30)


if __name__ == "__main__":
    unittest.main(verbosity=2)
