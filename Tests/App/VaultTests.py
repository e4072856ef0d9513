"""The host's verb `vault`, run as its user would."""
import json
import unittest

from host import HostTest


class VaultTests(HostTest):
    def pieces(self, count=2):
        events = [json.loads(line) for line in
                  self.generate("--json", "--seed", 7, seconds=2, count=count).out.splitlines()]
        return [event["fingerprint"] for event in events if event["event"] == "finished"]

    def test_every_part_has_help_with_an_example(self):
        for part in ([], ["list"], ["add"], ["remove"], ["export"], ["import"]):
            self.assert_help("vault", *part)

    def test_pieces_are_added_once_and_listed_oldest_first(self):
        first, second = self.pieces()

        self.assertIn("Saved " + second, self.run_host("vault", "add", second).out)
        self.assertEqual(self.run_json("vault", "add", first, "--name", "Mine"),
                         {"fingerprint": first, "name": "Mine", "isNew": True})
        self.assertFalse(self.run_json("vault", "add", first)["isNew"])

        self.assertEqual([recipe["fingerprint"] for recipe in self.run_json("vault", "list")], [second, first])
        self.assertEqual([line.split()[0] for line in self.run_host("vault").out.splitlines()], [second, first])
        kept = json.loads((self.home / "saved.json").read_text())
        self.assertEqual((kept["schema"], len(kept["recipes"])), ("quillmere.recipes/1", 2))

    def test_remove_acts_only_with_yes(self):
        first, second = self.pieces()
        for piece in (first, second):
            self.run_host("vault", "add", piece)

        self.assertIn("Would remove", self.run_host("vault", "remove", first).out)
        self.assertFalse(self.run_json("vault", "remove", first)["isRemoved"])
        self.assertEqual(len(self.run_json("vault")), 2)
        self.assertTrue(self.run_json("vault", "remove", first, "--yes")["isRemoved"])
        self.assertEqual([recipe["fingerprint"] for recipe in self.run_json("vault")], [second])
        wrong = second[:-1] + ("0" if second[-1] != "0" else "1")
        self.assertIn(f'Did you mean "{second}"?', self.run_host("vault", "remove", wrong, "--yes", expect=2).err)

    def test_an_exported_vault_is_imported_elsewhere(self):
        for piece in self.pieces():
            self.run_host("vault", "add", piece)
        file = self.place / "all.json"

        self.assertEqual(self.run_json("vault", "export", "--output", file)["count"], 2)
        self.assertIn("--force", self.run_host("vault", "export", "--output", file, expect=1).err)
        self.run_host("vault", "export", "--output", file, "--force")
        self.assertEqual(self.run_host("vault", "export").out, file.read_text() + "\n")

        there = ["--home", self.place / "other"]
        done = self.run_host("vault", "import", file, *there, home=False)
        self.assertEqual(done.out, "2 added\n")
        there_now = json.loads(self.run_host("vault", "--json", *there, home=False).out)
        self.assertEqual(there_now, self.run_json("vault"))

    def test_a_vault_is_exported_to_the_file_that_the_path_leads_to(self):
        (self.place / "far" / "folder").mkdir(parents=True)
        (self.place / "near").mkdir()
        (self.place / "near" / "link").symlink_to(self.place / "far" / "folder")
        for name in ("near", "far"):
            (self.place / name / "x.json").write_text("mine")

        self.run_host("vault", "export", "--force", "--output", f"{self.place}/near/link/../x.json")

        self.assertEqual((self.place / "near" / "x.json").read_text(), "mine")
        self.assertEqual(json.loads((self.place / "far" / "x.json").read_text())["recipes"], [])

    def test_an_export_names_a_file(self):
        (self.place / "folder").mkdir()
        for name in ("folder", "folder/", "folder/.", "folder/..", "folder/./"):
            done = self.run_host("vault", "export", "--force", "--output", f"{self.place}/{name}", expect=1)
            self.assertRegex(done.err, "Name a file|nothing is written there")
        self.assertEqual(list((self.place / "folder").iterdir()), [])

    def test_an_empty_vault_lists_and_exports_nothing(self):
        self.assertEqual(self.run_host("vault").out, "")
        self.assertEqual(self.run_json("vault"), [])
        self.assertEqual(json.loads(self.run_host("vault", "export").out),
                         {"schema": "quillmere.recipes/1", "recipes": []})

    def test_a_vault_that_cannot_be_read_is_kept_aside(self):
        piece = self.pieces(1)[0]
        (self.home / "saved.json").write_text("{broken")
        self.assertEqual(self.run_json("vault"), [])
        self.run_host("vault", "add", piece)
        kept = [path.read_text() for path in self.home.glob("saved.unreadable-*.json")]
        self.assertEqual(kept, ["{broken"])
        self.assertEqual(len(self.run_json("vault")), 1)

    def test_a_vault_that_cannot_be_read_is_told_from_an_empty_one(self):
        piece = self.pieces(1)[0]
        self.run_host("vault", "add", piece)
        vault, backup = self.home / "saved.json", self.place / "backup.json"
        self.run_host("vault", "export", "--output", backup)
        whole, kept = backup.read_bytes(), vault.read_bytes()

        def assert_refused(run):
            self.assertRegex(run("vault", "list", expect=0).err, 'The vault ".*" cannot be read: ')
            for words in (["vault", "export"], ["vault", "export", "--force", "--output", backup],
                          ["vault", "remove", piece, "--yes"], ["recipe", "recreate", piece]):
                done = run(*words, expect=1)
                self.assertEqual(done.out, "")
                self.assertRegex(done.err, 'The vault ".*" cannot be read: ')
            self.assertEqual(backup.read_bytes(), whole)

        assert_refused(lambda *words, expect: self.run_failing("openat:error=EIO", [vault], *words, expect=expect))
        self.assertEqual(vault.read_bytes(), kept)
        vault.write_text("{broken")
        assert_refused(self.run_host)
        self.assertEqual(vault.read_text(), "{broken")

    def test_a_vault_that_could_not_be_read_at_first_is_asked_again(self):
        piece = self.pieces(1)[0]
        self.run_host("vault", "add", piece)
        vault = [self.home / "saved.json"]

        self.assertIn(piece, self.run_failing("openat:error=EIO:when=1", vault, "vault").out)
        self.assertIn("Already", self.run_failing("openat:error=EIO:when=1", vault, "vault", "add", piece).out)
        self.run_failing("openat:error=EIO:when=1", vault, "vault", "remove", piece, "--yes")
        self.assertEqual(self.run_json("vault"), [])

    def test_a_vault_that_cannot_be_written_is_said_to_be_so(self):
        piece = self.pieces(1)[0]
        (self.home / "saved.json").mkdir()
        done = self.run_host("vault", "add", piece, expect=5)
        self.assertIn("The vault could not be saved", done.err)


if __name__ == "__main__":
    unittest.main()
