"""What the program does where another process holds the library, or the user's own records."""
import os
import unittest

from library import LibraryTest, holding

IN_USE = 4


class InUseTest(LibraryTest):
    def assert_refused(self, folder, verbs):
        before = self.snapshot(".lock")  # that of the other folder may be made
        descriptor = holding(folder)
        for verb in verbs:
            with self.subTest(verb=" ".join(map(str, verb))):
                done = self.run_host(*verb, expect=IN_USE)

                self.assertIn("a patient holder, process 4711", done.err)
                self.assertEqual(done.out, "")
        self.assertEqual(self.snapshot(".lock"), before, "nothing was changed")
        os.close(descriptor)

    def test_every_verb_that_changes_the_library_says_who_holds_it(self):
        mark = self.put(1)
        recipe = self.place / "piece.json"
        self.run_host("recipe", "export", mark, "--output", recipe)

        self.assert_refused(self.loops, [
            ("generate", "--mood", "designflow", "--seconds", 1),
            ("library", "measure"),
            ("library", "migrate"),
            ("library", "prune", "--keep", 0, "--yes"),
            ("library", "recover", "--yes"),
            ("library", "trash", mark, "--yes"),
            ("recipe", "recreate", recipe),
        ])

        self.assertEqual(self.marks(), [mark])

    def test_every_verb_that_changes_the_users_records_says_who_holds_them(self):
        mark = self.put(1)
        own = self.run_json("moods", "new", "--name", "Rain", "--calm-text", "soft", "--energetic-text", "loud")["id"]
        recipe = self.place / "piece.json"
        self.run_host("recipe", "export", mark, "--output", recipe)
        self.run_host("vault", "import", recipe)
        self.run_host("radio", "make", "designflow", "winddown")

        self.assert_refused(self.home, [
            ("moods", "new", "--name", "Snow"),
            ("moods", "edit", own, "--name", "Hail"),
            ("moods", "delete", own, "--yes"),
            ("radio", "make", "designflow"),
            ("radio", "toggle", "winddown"),
            ("radio", "next"),
            ("schedule", "22:00-06:00"),
            ("settings", "pace", "fast"),
            ("vault", "add", mark),
            ("vault", "remove", mark, "--yes"),
            ("recipe", "import", recipe),
            ("vault", "import", recipe),
            ("library", "prune", "--keep", 0, "--yes"),
        ])

    def test_settings_that_another_program_writes_are_read_and_not_changed(self):
        self.run_host("settings", "pace", "gentle")
        before = (self.home / "settings.json").read_text()
        descriptor = holding(self.home, ".settings.lock")

        done = self.run_host("settings", "mode", "scheduled", expect=IN_USE)
        self.assertIn("a patient holder, process 4711", done.err)
        self.assertEqual(self.run_host("settings", "pace").out, "gentle\n")

        self.assertEqual((self.home / "settings.json").read_text(), before)
        os.close(descriptor)

    def assert_left_alone(self, lock, words, says, expect=1):
        """A verb fails over what stands in the lock file's place, names the cause, and leaves everything as it is."""
        before = self.snapshot()
        with self.subTest(lock=lock.name, verb=" ".join(map(str, words)), says=says):
            done = self.run_host(*words, expect=expect)
            self.assertIn(str(lock), done.err)
            self.assertIn(says, done.err)
            self.assertNotIn("in use", done.err)
            self.assertEqual(self.snapshot(), before)

    def test_what_is_no_lock_file_is_left_alone_and_nobody_is_said_to_hold_it(self):
        self.put(1)
        outside = self.place / "notes.txt"
        for folder, words in ((self.loops, ("library", "measure")), (self.home, ("moods", "new", "--name", "Snow"))):
            lock = folder / ".lock"

            lock.write_text("my precious notes", encoding="utf-8")
            self.assert_left_alone(lock, words, "it holds something else")
            lock.unlink()

            outside.write_text("my precious notes", encoding="utf-8")
            os.link(outside, lock)
            self.assert_left_alone(lock, words, "it holds something else")
            lock.unlink()

            os.mkfifo(lock)
            self.assert_left_alone(lock, words, "not a regular file")
            lock.unlink()

            lock.symlink_to(outside)
            self.assert_left_alone(lock, words, "not a regular file")
            lock.unlink()

            lock.mkdir()
            self.assert_left_alone(lock, words, "not a regular file")
            lock.rmdir()

            lock.write_text("quillmere, process 4711\n", encoding="utf-8")  # who is dead
            self.run_host(*words)
            self.assertEqual(lock.read_text(encoding="utf-8"), "")

    def test_a_vault_whose_lock_file_is_somebody_elses_is_not_saved_and_says_why(self):
        mark = self.put(1)
        lock = self.home / ".saved.lock"
        lock.write_text("my precious notes", encoding="utf-8")

        done = self.run_host("vault", "add", mark, expect=5)

        self.assertIn("it holds something else", done.err)
        self.assertEqual(lock.read_text(encoding="utf-8"), "my precious notes")
        self.assertFalse((self.home / "saved.json").exists())

    def test_a_folder_or_a_fifo_in_the_place_of_the_moods_is_left_alone(self):
        moods = self.home / "Moods.json"
        (moods / "inside").mkdir(parents=True)
        (moods / "inside" / "precious").write_text("x", encoding="utf-8")
        self.run_host("moods", "list")
        self.assertIn("not a regular file", self.run_host("moods", "new", "--name", "Snow", expect=1).err)
        self.assertEqual((moods / "inside" / "precious").read_text(encoding="utf-8"), "x")

        moods.rename(self.place / "elsewhere")
        os.mkfifo(moods)
        self.run_host("moods", "list")
        self.assertIn("not a regular file", self.run_host("moods", "new", "--name", "Snow", expect=1).err)
        self.assertTrue(moods.is_fifo())

    def test_verbs_that_only_look_do_not_care(self):
        self.put(1)
        descriptor = holding(self.loops)
        for verb in (("library", "list"), ("library", "prune", "--keep", 0), ("status",), ("library", "recover")):
            with self.subTest(verb=" ".join(map(str, verb))):
                self.run_host(*verb)
        os.close(descriptor)


if __name__ == "__main__":
    unittest.main(verbosity=2)
