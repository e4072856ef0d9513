"""The host's verb `radio`, run as its user would."""
import json
import unittest

from host import HostTest


class RadioTests(HostTest):
    def kept(self):
        return self.run_json("radio")

    def test_every_part_has_help_with_an_example(self):
        for part in ([], ["show"], ["make"], ["toggle"], ["next"]):
            self.assert_help("radio", *part)

    def test_there_is_none_until_one_is_made(self):
        self.assertIn("There is no radio yet", self.run_host("radio", expect=1).err)
        self.run_host("radio", "next", expect=1)

    def test_is_made_of_moods_in_order_and_kept(self):
        made = self.run_json("radio", "make", "designflow", "winddown", "--on-air", "winddown")

        self.assertEqual(made, {"summary": "Radio · 2 moods", "moodIDs": ["designflow", "winddown"],
                                "onAir": "winddown"})
        self.assertEqual(self.kept(), made)
        self.assertIn(" > winddown", self.run_host("radio", "show").out)

    def test_toggle_adds_and_removes_but_never_the_last(self):
        self.run_host("radio", "toggle", "designflow")
        self.assertEqual(self.run_json("radio", "toggle", "sprint")["moodIDs"], ["designflow", "sprint"])
        removed = self.run_json("radio", "toggle", "designflow")
        self.assertEqual((removed["moodIDs"], removed["onAir"]), (["sprint"], "sprint"))
        self.assertIn("last one stays", self.run_host("radio", "toggle", "sprint", expect=1).err)
        self.assertEqual(self.kept()["moodIDs"], ["sprint"])

    def test_next_goes_round(self):
        self.run_host("radio", "make", "designflow", "sprint", "recovery")
        heard = [self.run_json("radio", "next")["onAir"] for _ in range(4)]
        self.assertEqual(heard, ["sprint", "recovery", "designflow", "sprint"])

    def test_wrong_names_change_nothing(self):
        self.run_host("radio", "make", "designflow")
        self.assertIn('Did you mean "sprint"?', self.run_host("radio", "toggle", "sprnt", expect=2).err)
        self.assertIn("has no music yet", self.run_host("radio", "make", "writing", expect=2).err)
        self.assertIn('Did you mean "sprint"?',
                      self.run_host("radio", "make", "sprint", "--on-air", "sprnt", expect=2).err)
        self.run_host("radio", "make", expect=2)
        self.assertEqual(self.kept()["moodIDs"], ["designflow"])

    def test_a_mood_that_is_gone_can_be_taken_out(self):
        mood = self.run_json("moods", "new", "--calm-text", "a", "--energetic-text", "b")["id"]
        self.run_host("radio", "make", "designflow", mood)
        self.run_host("moods", "delete", mood, "--yes")

        self.assertIn("no such mood", self.run_host("radio").out)
        self.assertEqual(self.run_json("radio", "toggle", mood)["moodIDs"], ["designflow"])

    def test_settings_that_could_not_be_read_at_first_are_asked_for_again(self):
        file = self.home / "settings.json"
        for words, radio, on_air in ((["radio", "toggle", "recovery"], ["designflow", "sprint", "recovery"], "sprint"),
                                     (["radio", "next"], ["designflow", "sprint"], "designflow"),
                                     (["settings", "radio", "sprint,recovery"], ["sprint", "recovery"], "sprint"),
                                     (["settings", "radio", "recovery,sprint"], ["recovery", "sprint"], "sprint")):
            self.run_host("radio", "make", "designflow", "sprint", "--on-air", "sprint")
            self.assertEqual(self.run_failing("openat:error=EIO:when=1", [file], *words).err, "")
            self.assertEqual((self.kept()["moodIDs"], self.kept()["onAir"]), (radio, on_air))

            before = file.read_bytes()
            done = self.run_failing("openat:error=EIO", [file], *words, expect=1)
            self.assertIn("settings.json", done.err)
            self.assertEqual(file.read_bytes(), before)

    def test_a_mood_that_cannot_be_read_is_not_said_to_be_gone_for_good(self):
        mood = self.run_json("moods", "new", "--calm-text", "a", "--energetic-text", "b")["id"]
        self.run_host("radio", "make", "designflow", mood)
        done = self.run_failing("openat:error=EIO", [self.home / "Moods.json"], "radio")
        self.assertRegex(done.err, "The moods .* cannot be read")
        self.assertRegex(done.out, f"{mood} .*cannot be read")

    def test_what_a_file_says_cannot_steer_the_terminal(self):
        self.run_host("radio", "make", "designflow")
        file = self.home / "settings.json"
        settings = json.loads(file.read_text())
        settings["radio"] = {"moodIDs": ["\x1b[31mred", "designflow"], "onAir": "elsewhere\u202e"}
        file.write_text(json.dumps(settings))
        for words in (["radio"], ["radio", "--json"], ["settings", "radio"], ["settings", "radio", "--json"],
                      ["settings", "--json"], ["radio", "next"]):
            done = self.run_host(*words)
            self.assertNotIn("\x1b", done.out + done.err)
            self.assertNotIn("\u202e", done.out + done.err)


if __name__ == "__main__":
    unittest.main()
