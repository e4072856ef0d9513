"""The host's verb `library recover`."""
import json
import unittest

from library import LibraryTest, fingerprint, identity, write_wav


class RecoverTests(LibraryTest):
    def keep(self, text, reason="unreadable", time="2024-05-01T10-20-30Z"):
        file = self.loops / f"manifest.{reason}-{time}.json"
        file.write_text(text, encoding="utf-8")
        return file

    def recover(self, *arguments, **options):
        found = self.run_json("library", "recover", *arguments, **options)
        for kind in ("recoverable", "missing"):
            self.assertEqual([entry["fingerprint"] for entry in found[kind]],
                             sorted(entry["fingerprint"] for entry in found[kind]))
        return found

    @staticmethod
    def marks_of(entries):
        return {entry["fingerprint"] for entry in entries}

    def test_a_sound_library_has_nothing_to_take_back(self):
        self.put(1)
        self.keep(json.dumps(self.entries), "before")

        self.assertEqual(self.recover(), {"isDone": False, "unreadable": [], "recoverable": [], "missing": []})

    def test_lists_what_it_would_take_back_and_changes_nothing(self):
        mark, gone = self.put(1, write=False), self.put(2, write=False, audio=None)
        copy = self.keep(json.dumps(self.entries), "before")
        before = self.snapshot()

        found = self.recover()

        self.assertEqual(self.marks_of(found["recoverable"]), {mark})
        self.assertEqual(self.marks_of(found["missing"]), {gone})
        self.assertEqual(found["missing"][0]["source"], str(copy))
        self.assertIn("--yes takes them back", self.library("recover").out)
        self.assertEqual(self.snapshot(), before)

    def test_takes_back_what_still_has_its_audio(self):
        mark = self.put(1, write=False)
        self.put(2, write=False, audio=None)
        self.keep(json.dumps(self.entries), "before")
        self.entries = []
        held = self.put(3)

        self.assertTrue(self.recover("--yes")["isDone"])

        self.assertEqual(self.marks(), sorted([mark, held]))
        self.assertEqual(self.recover()["recoverable"], [])

    def test_takes_entries_one_by_one_from_a_damaged_manifest(self):
        marks = [self.put(seed, write=False) for seed in range(6)]
        parts = [json.dumps(entry) for entry in self.entries]
        for name, text, left in (
                ("cut off", "[" + ",".join(parts)[:-30], marks[:5]),
                ("damaged in the middle", "[" + ",".join(parts).replace('"seed": 2', '"seed": \x00"', 1), marks[:2] + marks[3:]),
                ("an entry of another form", "[" + ",".join([*parts[:5], '{"identity": 5}']) + "]", marks[:5]),
                ("a quote missing", "[" + ",".join([parts[0], parts[1].replace('"url"', 'url"', 1), *parts[2:]]) + "]",
                 [marks[0], *marks[2:]]),
                ("a text with a quote and braces in it, then a cut",
                 "[" + parts[0].replace("{", r'{"note": "say \"}{\"", ', 1) + "," + parts[1][:-30], marks[:1]),
                ("no array at all", parts[0], marks[:1])):
            with self.subTest(name):
                (self.loops / "manifest.json").write_text(text)

                found = self.recover()

                self.assertEqual(self.marks_of(found["recoverable"]), set(left))
                self.assertEqual(found["unreadable"], [str(self.loops / "manifest.json")])

        self.recover("--yes")
        self.assertEqual(self.marks(), [marks[0]])
        (kept,) = self.loops.glob("manifest.unreadable-*.json")
        self.assertEqual(kept.read_text(), parts[0], "the damaged manifest is kept aside, not lost")

    def test_finds_audio_whose_folder_was_moved_or_that_was_packed_since(self):
        moved = self.put(1, write=False)
        self.entries[0]["url"] = "file:///old/place/" + self.file_of(moved).name
        packed = self.put(2, write=False, name="other.wav", audio=None)
        write_wav(self.loops / f"designflow_b2_{packed}.m4a", 0.1)
        self.write_manifest()

        self.recover("--yes")

        urls = {fingerprint(entry["identity"]): entry["url"] for entry in self.manifest()}
        self.assertEqual(urls, {moved: f"file://{self.file_of(moved)}", packed: f"file://{self.file_of(packed)}"})

    def test_takes_nothing_that_is_not_its_own_audio(self):
        outside = self.place / "outside.wav"
        write_wav(outside, 0.1)
        held = self.put(1)
        stranger = {"identity": identity(seed=2), "url": f"file://{outside}", "seconds": 1}
        thief = {"identity": identity(seed=3), "url": f"file://{self.file_of(held)}", "seconds": 1}
        record = {"identity": identity(seed=4), "url": f"file://{self.loops}/manifest.json", "seconds": 1}
        (self.loops / "noise.wav").write_bytes(b"no audio")
        noise = {"identity": identity(seed=5), "url": f"file://{self.loops}/noise.wav", "seconds": 1}
        (self.loops / "link.wav").symlink_to(outside)
        link = {"identity": identity(seed=6), "url": f"file://{self.loops}/link.wav", "seconds": 1}
        self.keep(json.dumps([stranger, thief, record, noise, link]))

        found = self.recover()

        self.assertEqual(found["recoverable"], [])
        self.assertEqual(len(found["missing"]), 5)
        self.assertEqual(len({entry["problem"] for entry in found["missing"]}), 4)

    def test_lists_unreadable_files_of_all_kinds(self):
        for name in ("Moods.unreadable-2024-05-01T10-20-30Z.json", "saved.unreadable-2024-05-01T10-20-30Z.json",
                     "settings.unreadable-2024-05-01T10-20-30Z.json"):
            (self.home / name).write_text("{")
        self.keep("[")

        self.assertEqual(len(self.recover()["unreadable"]), 4)

    def test_a_hostile_manifest_takes_little_time(self):
        (self.loops / "manifest.json").write_text("{" * 2_000_000)
        self.keep('[{"' * 300_000)

        self.assertEqual(self.recover()["recoverable"], [])

    def test_a_library_that_cannot_be_saved_is_an_error(self):
        self.put(1, write=False)
        self.keep(json.dumps(self.entries), "before")

        done = self.run_without_space("library", "recover", "--yes")

        self.assertEqual(done.returncode, 5, done.stderr)
        self.assertFalse((self.loops / "manifest.json").exists())


if __name__ == "__main__":
    unittest.main(verbosity=2)
