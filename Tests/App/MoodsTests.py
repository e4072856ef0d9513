"""The host's verbs `moods`, `personas` and `tags`, run as their user would."""
import concurrent.futures
import json
import unittest

from host import HostTest


class MoodsTests(HostTest):
    def make(self, *changes):
        return self.run_json("moods", "new", *changes)

    def make_playable(self):
        return self.make("--name", "Night", "--glyph", "ring", "--calm-tag", "genre=ambient", "--calm-tag",
                         "moods=calm", "--calm-bpm", 60, "--calm-text", " soft ", "--energetic-tag", "genre=techno",
                         "--energetic-bpm", 120)

    def kept(self):
        return json.loads((self.home / "Moods.json").read_text(encoding="utf-8"))["moods"]

    def test_every_part_has_help_with_an_example(self):
        for part in (["moods"], *(["moods", name] for name in
                                  ("list", "show", "new", "edit", "delete", "prompt")), ["personas"], ["tags"]):
            self.assert_help(*part)

    def test_lists_the_built_in_moods_by_family(self):
        for words in (["moods"], ["moods", "list"]):
            done = self.run_host(*words)
            titles = [line for line in done.out.splitlines() if line and not line.startswith(" ")]
            self.assertEqual(titles, ["Focus", "Ambient", "Wind down"])
            moods = self.run_json(*words)
            self.assertEqual(len(moods), 18)
            self.assertEqual(sum(mood["isPlayable"] for mood in moods), 6)

    def test_a_new_mood_is_kept_and_listed_first_of_the_users_own(self):
        first = self.make_playable()
        second = self.make("--name", "Second", "--persona", "archivist")

        self.assertRegex(first["id"], r"^my-[0-9a-f]{8}$")
        self.assertEqual([mood["name"] for mood in self.kept()], ["Second", "Night"])
        self.assertEqual(self.kept()[1]["calm"], {"tags": [{"category": "genre", "value": "ambient"},
                                                          {"category": "moods", "value": "calm"}],
                                                  "text": " soft ", "bpm": 60})
        mine = [mood for mood in self.run_json("moods") if mood["family"] == "mine"]
        self.assertEqual([mood["id"] for mood in mine], [second["id"], first["id"]])
        persona = self.run_json("personas", "archivist")[0]
        self.assertEqual(second["moodSpec"]["calm"]["text"], persona["prompts"]["calm"])
        self.assertTrue(second["isPlayable"])

    def test_a_mood_with_an_empty_end_is_kept_but_cannot_be_played(self):
        done = self.run_host("moods", "new", "--calm-tag", "genre=ambient")

        self.assertIn("No music can be made", done.err)
        mood = self.kept()[0]
        self.assertEqual(mood["name"], "Untitled mood")
        refused = self.run_host("moods", "prompt", mood["id"], expect=2)
        self.assertIn("has no music yet", refused.err)

    def test_edit_changes_what_is_named_and_nothing_else(self):
        before = self.make_playable()["moodSpec"]

        done = self.run_host("moods", "edit", before["id"], "--name", "Renamed")
        self.assertNotIn("no longer played", done.err)
        self.assertEqual(self.kept()[0], before | {"name": "Renamed"})

        done = self.run_host("moods", "edit", before["id"], "--energetic-bpm", "none", "--calm-tag", "none")
        self.assertIn("no longer played", done.err)
        self.assertEqual(self.kept()[0]["calm"], before["calm"] | {"tags": []})
        self.assertNotIn("bpm", self.kept()[0]["energetic"])

        written = (self.home / "Moods.json").stat().st_ino
        self.assertIn("unchanged", self.run_host("moods", "edit", before["id"], "--name", "Renamed").out)
        self.assertEqual((self.home / "Moods.json").stat().st_ino, written)

    def test_delete_says_what_it_would_do_and_acts_only_with_yes(self):
        mood = self.make_playable()["id"]

        self.assertIn("Would delete " + mood, self.run_host("moods", "delete", mood).out)
        self.assertEqual(self.run_json("moods", "delete", mood), {"id": mood, "name": "Night", "isDeleted": False})
        self.assertEqual(len(self.kept()), 1)

        self.assertTrue(self.run_json("moods", "delete", mood, "--yes")["isDeleted"])
        self.assertEqual(self.kept(), [])
        self.assertIn("there is no mood", self.run_host("moods", "delete", mood, "--yes", expect=2).err)

    def test_moods_that_cannot_be_read_are_told_from_none(self):
        mood = self.make_playable()["id"]
        file = self.home / "Moods.json"
        whole = file.read_bytes()
        refused = (["moods", "edit", mood, "--name", "x"], ["moods", "delete", mood, "--yes"], ["moods", "show", mood],
                   ["moods", "prompt", mood], ["generate", "--mood", mood], ["settings", "radio", mood],
                   ["radio", "make", mood], ["play", "--mood", mood, "--output", self.place / "out.wav"])

        for words in refused:
            done = self.run_failing("openat:error=EIO", [file], *words, expect=1)
            self.assertIn(f'The moods "{file}" cannot be read: ', done.err)
        done = self.run_failing("openat:error=EIO", [file], "moods")
        self.assertIn(f'The moods "{file}" cannot be read: ', done.err)
        self.assertIn("designflow", done.out)
        self.assertEqual(file.read_bytes(), whole)

        for words in (*refused, ["moods", "new"], ["moods"]):
            file.write_text("{broken")
            done = self.run_host(*words, expect=1 if words in refused else 0)
            self.assertRegex(done.err, r'The moods ".*" \(kept as "Moods.unreadable-.*"\) cannot be read: ')

    def test_damaged_moods_are_told_by_whatever_looks_first(self):
        mood = self.make_playable()["id"]
        self.generate(seconds=2)
        piece = self.run_json("library", "list")[0]["fingerprint"]
        file = self.home / "Moods.json"
        said = r'The moods ".*" \(kept as "Moods.unreadable-.*"\) cannot be read: '

        for words in (["generate", "--mood", "designflow", "--seconds", 1], ["moods", "show", "designflow"],
                      ["play", "--mood", "designflow", "--minutes", 0.1, "--output", self.place / "out.wav"],
                      ["library", "show", piece], ["radio", "make", "designflow"], ["settings", "radio", "designflow"]):
            file.write_text("{broken")
            done = self.run_host(*words)
            self.assertRegex(done.err, said)
            self.assertEqual(done.err.count("cannot be read"), 1)
        file.write_text("{broken")
        self.assertRegex(self.run_host("library", "list", "--mood", "designfloww", expect=2).err, said)
        self.assertIn("there is no mood", self.run_host("moods", "show", mood, expect=2).err)

    def test_moods_that_could_not_be_read_at_first_are_asked_for_again(self):
        mood = self.make_playable()["id"]
        file = [self.home / "Moods.json"]

        self.assertIn(mood, self.run_failing("openat:error=EIO:when=1", file, "moods").out)
        self.run_failing("openat:error=EIO:when=1", file, "moods", "edit", mood, "--name", "Again")
        self.assertEqual([each["name"] for each in self.kept()], ["Again"])
        self.run_failing("openat:error=EIO:when=1", file, "moods", "delete", mood, "--yes")
        self.assertEqual(self.kept(), [])

    def test_a_change_that_is_in_place_unsynced_is_told_as_one_that_may_be_lost(self):
        mood = self.make_playable()["id"]

        def change(*words):
            done = self.run_failing("fsync:error=EIO", [self.home], *words, expect=5)
            self.assertIn("The change is in place, but a power cut may still undo it.", done.err)
            return done.out

        made = change("moods", "new", "--name", "Unsynced").split()[0]
        self.assertEqual([each["id"] for each in self.kept()], [made, mood])
        self.assertIn("Renamed", change("moods", "edit", mood, "--name", "Renamed"))
        self.assertIn("Deleted", change("moods", "delete", made, "--yes"))
        self.assertEqual([each["name"] for each in self.kept()], ["Renamed"])
        self.assertEqual(change("settings", "pace", "gentle"), "gentle\n")
        self.assertEqual(self.run_host("settings", "pace").out, "gentle\n")
        self.assertIn("22:00-06:00", change("schedule", "22:00-06:00"))
        self.assertIn("> designflow", change("radio", "make", "designflow", "sprint"))
        self.assertIn("> sprint", change("radio", "next"))
        self.assertEqual(self.run_json("radio")["onAir"], "sprint")

    def test_a_file_system_without_locks_is_no_reason_not_to_change_anything(self):
        mood = self.make_playable()["id"]
        locks = [self.home / name for name in (".lock", ".Moods.lock", ".settings.lock")]
        changes = (["moods", "edit", mood, "--name", "Renamed"], ["settings", "pace", "gentle"],
                   ["radio", "make", "designflow"], ["schedule", "none"])
        for error in ("ENOSYS", "EOPNOTSUPP", "EINVAL"):
            for words in changes:
                self.run_failing(f"fcntl:error={error}", locks, *words)
        self.assertEqual(self.kept()[0]["name"], "Renamed")
        for words in changes:  # that may pass
            self.assertIn("lock", self.run_failing("fcntl:error=ENOLCK", locks, *words, expect=1).err)

    def test_prompt_is_the_complete_one_at_the_step(self):
        mood = self.make_playable()["id"]
        calm = "TrackType: Music, VocalType: Instrumental, Genre: ambient, Moods: calm, BPM: 60. soft"

        self.assertEqual(self.run_host("moods", "prompt", mood, "--blend", "calm").out, calm + "\n")
        # Both ends' tags, the tempo a quarter of the way from 60 to 120, the calm end's text.
        self.assertEqual(self.run_json("moods", "prompt", mood, "--blend", 1)["prompt"],
                         "TrackType: Music, VocalType: Instrumental, Genre: ambient, Genre: techno, Moods: calm, "
                         "BPM: 75. soft")
        self.assertEqual(self.run_json("moods", "prompt", mood, "--blend", 4)["prompt"],
                         "TrackType: Music, VocalType: Instrumental, Genre: techno, BPM: 120.")

    def test_prompt_of_a_built_in_mood_is_its_end_or_both_with_their_shares(self):
        both = self.run_json("moods", "prompt", "designflow", "--blend", 1)
        self.assertEqual((both["weight"], both["label"]), (0.25, "Balanced"))
        self.assertNotIn("prompt", both)
        self.assertIn(" 75 %  " + both["calmPrompt"], self.run_host("moods", "prompt", "designflow").out)
        calm = self.run_json("moods", "prompt", "designflow", "--blend", 0)
        self.assertEqual(calm["prompt"], both["calmPrompt"])

    def test_built_in_moods_stay_as_they_are(self):
        for words in (["edit", "designflow", "--name", "Mine"], ["delete", "designflow", "--yes"]):
            self.assertIn("is built in", self.run_host("moods", *words, expect=2).err)

    def test_mistyped_names_get_a_suggestion(self):
        for words, meant in ((["moods", "show", "desingflow"], "designflow"),
                             (["moods", "new", "--glyph", "wve"], "wave"),
                             (["moods", "new", "--calm-tag", "gnre=x"], "genre"),
                             (["moods", "new", "--persona", "archvist"], "archivist"),
                             (["personas", "archvist"], "archivist"), (["tags", "natur"], "nature")):
            done = self.run_host(*words, expect=2)
            self.assertIn(f'Did you mean "{meant}"?', done.err)
            self.assertEqual(done.out, "")
        self.assertFalse((self.home / "Moods.json").exists())

    def test_what_no_mood_can_have_is_a_wrong_command_line(self):
        for changes in (["--calm-bpm", "29"], ["--calm-bpm", "301"], ["--calm-bpm", "fast"], ["--calm-tag", "genre"],
                        ["--calm-tag", "genre= "], ["--name", "  "]):
            self.run_host("moods", "new", *changes, expect=2)
        self.assertFalse((self.home / "Moods.json").exists())

    def test_a_name_that_is_not_text_is_refused_and_nothing_is_lost(self):
        mood = self.make_playable()["id"]
        before = (self.home / "Moods.json").read_bytes()

        self.run_host("moods", "edit", mood, "--name", "\udcff\udcfe", expect=1)

        self.assertEqual((self.home / "Moods.json").read_bytes(), before)

    def test_names_from_files_cannot_steer_the_terminal(self):
        self.home.mkdir()
        end = {"tags": [{"category": "genre", "value": "\x1b]0;t\x07"}], "text": "\x1b[2J\u202e\u009b1m"}
        mood = {"id": "my-\x1b[1m", "name": "A\x1b[31m\u009bB\u202e", "glyph": "wave", "calm": end, "energetic": end}
        (self.home / "Moods.json").write_text(json.dumps({"version": 1, "moods": [mood]}), encoding="utf-8")

        for words in (["moods"], ["moods", "show", mood["id"]], ["moods", "prompt", mood["id"]],
                      ["moods", "delete", mood["id"]], ["moods", "show", "my-\x1b"], ["moods", "--json"],
                      ["moods", "show", mood["id"], "--json"]):
            done = self.run_host(*words, expect=2 if words[-1] == "my-\x1b" else 0)
            for bad in "\x1b\x07\u009b\u202e":
                self.assertNotIn(bad, done.out + done.err)
        self.assertEqual(self.run_json("moods", "show", mood["id"])["name"], mood["name"])

    def test_changes_made_at_the_same_time_are_all_kept_or_refused(self):
        with concurrent.futures.ThreadPoolExecutor(6) as pool:
            runs = [pool.submit(lambda name: self.start("moods", "new", "--name", name), f"Mood {i}")
                    for i in range(6)]
            codes = []
            for run in runs:
                process = run.result()
                process.communicate(timeout=60)
                codes.append(process.returncode)

        self.assertLessEqual(set(codes), {0, 4})
        self.assertEqual(len(self.kept()), codes.count(0))

    def test_personas_are_listed_and_shown(self):
        personas = self.run_json("personas")
        self.assertGreater(len(personas), 0)
        out = self.run_host("personas").out
        for persona in personas:
            self.assertIn(persona["id"], out)
        shown = self.run_host("personas", personas[0]["id"]).out
        self.assertIn(personas[0]["prompts"]["calm"], shown)

    def test_tags_come_by_category(self):
        sections = self.run_json("tags")["sections"]
        self.assertEqual([section["category"] for section in sections],
                         ["genre", "moods", "instruments", "tempo", "texture", "nature"])
        self.assertTrue(all(section["tags"] for section in sections))
        only = self.run_json("tags", "nature")["sections"]
        self.assertEqual(only, [sections[5]])
        self.assertIn("rain", self.run_host("tags", "nature").out)

    def test_another_vocabulary_can_be_named_and_a_damaged_one_says_where(self):
        file = self.place / "tags.json"
        file.write_text('{"sections": [{"category": "genre", "tags": [{"tag": "x\\u001b[1m", "source": "me"}]}]}')
        self.assertNotIn("\x1b", self.run_host("tags", "genre", "--file", file).out)
        self.assertEqual(self.run_json("tags", "genre", "--file", file)["sections"][0]["tags"][0]["source"], "me")
        file.write_text('{"sections": [{"category": "genre", "tags": [{"tag": "x"}]}]}')
        self.assertIn("sections[0].tags[0].source", self.run_host("tags", "--file", file, expect=1).err)
        self.run_host("tags", "--file", self.place / "none.json", expect=1)


if __name__ == "__main__":
    unittest.main()
