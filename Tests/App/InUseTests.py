"""What the program does where another process holds the library, or the user's own records."""
import os
import unittest

from library import LibraryTest, holding

IN_USE = 4


class InUseTest(LibraryTest):
    def assert_refused(self, folder, verbs):
        before = self.snapshot()
        descriptor = holding(folder)
        before[str((folder / ".lock").relative_to(self.place))] = None
        for verb in verbs:
            with self.subTest(verb=" ".join(map(str, verb))):
                done = self.run_host(*verb, expect=IN_USE)

                self.assertIn("a patient holder, process 4711", done.err)
                self.assertEqual(done.out, "")
        after = self.snapshot()
        after[str((folder / ".lock").relative_to(self.place))] = None
        self.assertEqual(after, before, "nothing was changed")
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
        ])

    def test_verbs_that_only_look_do_not_care(self):
        self.put(1)
        descriptor = holding(self.loops)
        for verb in (("library", "list"), ("library", "prune", "--keep", 0), ("status",), ("library", "recover")):
            with self.subTest(verb=" ".join(map(str, verb))):
                self.run_host(*verb)
        os.close(descriptor)


if __name__ == "__main__":
    unittest.main(verbosity=2)
