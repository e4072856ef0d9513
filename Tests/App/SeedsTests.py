"""The pieces that ship with the host: there at the first start, without anything generated."""
import json
import os
import pathlib
import unittest

from host import HostTest

RESOURCES = pathlib.Path(os.environ["QUILLMERE_SEEDS"])


class SeedsTests(HostTest):
    def setUp(self):
        super().setUp()
        self.environment["QUILLMERE_RESOURCES"] = str(RESOURCES)

    def test_the_list_names_whole_tracks_of_three_blend_steps_that_are_there(self):
        seeds = json.loads((RESOURCES / "Loops" / "seeds.json").read_text(encoding="utf-8"))
        self.assertEqual([seed["identity"]["blend"]["index"] for seed in seeds], [0, 2, 4])
        for seed in seeds:
            self.assertEqual(seed["seconds"], 120)
            self.assertGreater((RESOURCES / "Loops" / (seed["file"] + ".m4a")).stat().st_size, 1_000_000)

    def test_the_first_start_has_music(self):
        listed = json.loads(self.run_host("library", "list", "--json").out)
        self.assertEqual(len(listed), 3)
        self.assertEqual(len(list(self.loops.glob("*.m4a"))), 3)
        self.assertEqual(len(self.manifest()), 3)

    def test_nothing_is_left_of_making_them(self):
        self.assertEqual(sorted(entry.name for entry in RESOURCES.iterdir()), ["Loops", "tags.json"])


if __name__ == "__main__":
    unittest.main()
