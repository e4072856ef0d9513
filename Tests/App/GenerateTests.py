"""The host's verb `generate`, run as its user would."""
import json
import os
import pathlib
import re
import subprocess
import unittest
import wave

from host import QUILLMERE, HostTest, interrupt, processes_below


class GenerateTests(HostTest):
    def test_files_the_asked_pieces_one_after_another(self):
        done = self.generate("--blend", 1, "--seed", 7, count=2)

        self.assertEqual(len(self.audio()), 2)
        entries = self.assert_complete()
        self.assertEqual(sorted(entry["identity"]["seed"] for entry in entries), [7, 8])
        for entry in entries:
            self.assertEqual(entry["identity"]["moodID"], "designflow")
            self.assertEqual(entry["identity"]["blend"]["index"], 1)
            self.assertEqual(entry["identity"]["model"], "sa3_medium_mlx_v2")
            self.assertEqual(entry["seconds"], 4)
            self.assertIn("loudness", entry["quality"])
            self.assertTrue(entry["engineBuild"].startswith("tonebed-"))
            self.assertIn(str(self.loops), done.out)
        self.assertEqual([p.name for p in self.loops.iterdir() if p.name.startswith("Render-")], [])

    def test_says_plain_lines_when_piped(self):
        done = self.generate("--seed", 1, seconds=90)  # long enough for more than the first and the last stage

        self.assertRegex(done.err, r"(?m)^Creating music · \d+ of \d+$")
        self.assertNotIn("\x1b", done.err + done.out)

    def test_a_piece_in_the_library_is_not_rendered_again(self):
        self.generate("--seed", 1)
        before = self.audio()[0].stat()

        done = self.generate("--seed", 1)

        self.assertIn("already in the library", done.out)
        self.assertEqual(self.audio()[0].stat().st_ino, before.st_ino)

    def test_the_same_seed_gives_the_same_bytes_elsewhere(self):
        self.generate("--seed", 3)
        first = self.audio()[0].read_bytes()

        self.generate("--seed", 3, "--library", self.place / "other")

        self.assertEqual(self.audio(self.place / "other")[0].read_bytes(), first)

    def test_json_prints_every_event_with_its_number(self):
        done = self.generate("--json", "--seed", 5, count=2)

        events = [json.loads(line) for line in done.out.splitlines()]
        self.assertEqual([event["sequence"] for event in events], list(range(1, len(events) + 1)))
        kinds = [event["event"] for event in events]
        self.assertEqual(kinds[0], "rendering")
        self.assertEqual(kinds[-1], "finished")
        self.assertEqual(kinds.count("finished"), 2)
        self.assertIn("stage", kinds)
        self.assertEqual(events[-1]["artifact"]["identity"]["seed"], 6)

    def test_blend_takes_numbers_and_names(self):
        for blend, index in (("calm", 0), ("balanced", 1), ("energetic", 4), ("3", 3)):
            done = self.generate("--json", "--blend", blend, "--seed", 1, seconds=2)
            artifact = json.loads(done.out.splitlines()[-1])["artifact"]
            self.assertEqual(artifact["identity"]["blend"]["index"], index)

    def test_model_and_runtime_make_the_identity(self):
        done = self.generate("--json", "--model", "small-music", "--runtime", "background", "--seed", 1, seconds=2)

        artifact = json.loads(done.out.splitlines()[-1])["artifact"]
        self.assertEqual(artifact["identity"]["model"], "sa3_small-music_coreml_v1")

    def test_everything_can_be_moved(self):
        words = [QUILLMERE, "generate", "--mood", "sprint", "--seconds", "2", "--seed", "1"]

        def run(**environment):
            subprocess.run(words, env=self.environment | environment, check=True, capture_output=True, timeout=60)

        run()
        self.assertEqual(len(self.audio(self.place / "data/Quillmere/Loops")), 1)
        run(QUILLMERE_HOME=str(self.place / "moved"))
        self.assertEqual(len(self.audio(self.place / "moved/Loops")), 1)

    def test_wrong_command_lines_are_told_apart_from_failures(self):
        for words in (["generate"], ["generate", "--mood", "designflow", "--blend", "5"], ["generte"], [],
                      ["generate", "--mood", "designflow", "--seconds", "0"],
                      ["generate", "--mood", "designflow", "--seconds", "121"],
                      ["generate", "--mood", "designflow", "--count", "0"],
                      ["generate", "--mood", "designflow", "--seconds", "nan"],
                      ["generate", "--mood", "designflow", "--seed", "-1"],
                      ["generate", "--mood", "designflow", "--seed", "9223372036854775807", "--count", "2"],
                      ["generate", "--mood", "designflow", "--pace", "brisk"],
                      ["generate", "--mood", "designflow", "--pace", "1"],
                      ["generate", "--mood", "designflow", "--model", "0"],
                      ["generate", "--mood", "designflow", "--runtime", "1"]):
            with self.subTest(words):
                done = self.run_host(*words, expect=2, home=False)
                self.assertNotEqual(done.err, "")
        self.assertFalse((self.place / "data").exists())

    def test_a_mistyped_mood_gets_a_suggestion(self):
        done = self.run_host("generate", "--mood", "desingflow", expect=2)

        self.assertIn('Did you mean "designflow"?', done.err)

    def test_a_mistyped_choice_gets_a_suggestion_and_says_which_there_are(self):
        for option, word, meant in (("--pace", "gentel", "gentle"), ("--model", "smal-music", "small-music"),
                                    ("--runtime", "standart", "standard"), ("--blend", "clam", "calm")):
            done = self.run_host("generate", "--mood", "designflow", option, word, expect=2)
            self.assertRegex(done.err, f'{option}: "{word}" is none of .*{meant}.*Did you mean "{meant}"\\?')
        self.assertNotIn("Did you mean", self.run_host("generate", "--mood", "designflow", "--blend", "7", expect=2).err)

    def test_a_mistyped_option_gets_a_suggestion(self):
        for words, meant in ((["generate", "--mod", "designflow"], "--mood"),
                             (["moods", "show", "designflow", "--jsno"], "--json"),
                             (["library", "list", "--library", "list", "--mod=designflow"], "--mood")):
            done = self.run_host(*words, expect=2)
            self.assertIn(f'Did you mean "{meant}"?', done.err)

    def test_a_value_is_never_taken_for_a_mistyped_verb(self):
        done = self.run_host("moods", "--home", "shwo", "lits", expect=2, home=False)
        self.assertIn('Did you mean "list"?', done.err)

    def test_a_mood_without_music_is_refused(self):
        done = self.run_host("generate", "--mood", "writing", expect=2)

        self.assertIn("has no music yet", done.err)

    def test_an_engine_that_fails_is_reported_in_its_own_words(self):
        engine = self.script("engine", "#!/bin/sh\nread request\necho 'out of \x1b[31mtune' >&2\nexit 3\n")

        done = self.generate("--engine", engine, expect=1)

        self.assertIn("out of ", done.err)
        self.assertNotIn("\x1b", done.err)
        self.assertEqual(self.audio(), [])
        self.assertEqual([p.name for p in self.loops.iterdir() if p.name.startswith("Render-")], [])

    def test_an_engine_that_is_not_there_is_a_failure(self):
        self.generate("--engine", "/no/such/engine", expect=1)
        self.generate("--engine", "'unclosed", expect=1)

    def test_a_failure_whose_text_is_not_utf8_is_an_event_like_any_other(self):
        done = self.generate("--json", "--engine", self.place / "no\udcffsuch", expect=1)
        failed = [json.loads(line) for line in done.out.splitlines()]
        self.assertIn("no\ufffdsuch", [event["message"] for event in failed if event["event"] == "failed"][0])

    def test_interrupting_leaves_nothing_half_done(self):
        process = self.start("generate", "--mood", "designflow", "--count", "500", "--json")
        while "finished" not in process.stdout.readline():
            pass
        process.stdout.readline()

        interrupt(process)
        process.communicate(timeout=30)

        self.assertEqual(process.returncode, 130)
        self.assertEqual(len(self.assert_complete()), len(self.audio()))
        self.assertEqual([p.name for p in self.loops.iterdir() if p.name.startswith("Render-")], [])
        self.assertEqual(processes_below(self.place), [])

    def test_a_library_that_cannot_be_saved_is_an_error(self):
        (self.loops / "manifest.json" / "in the way").mkdir(parents=True)

        done = self.generate(expect=5)

        self.assertIn("could not be saved", done.err)
        self.assertTrue((self.loops / "manifest.json" / "in the way").is_dir())

    def test_a_library_in_use_says_by_whom(self):
        process = self.start("generate", "--mood", "designflow", "--count", "500", "--json")
        process.stdout.readline()

        done = self.generate(expect=4)
        interrupt(process)
        process.communicate(timeout=30)

        self.assertIn(str(process.pid), done.err)

    def test_standard_output_that_is_closed_does_not_stop_the_work(self):
        process = self.start("generate", "--mood", "designflow", "--seconds", "2", "--count", "2")
        process.stdout.close()
        process.stderr.read()
        process.wait(timeout=60)

        self.assertEqual(len(self.assert_complete()), 2)
        self.assertEqual(process.returncode, 1)

    def test_closed_standard_streams_are_never_mistaken_for_files_of_the_library(self):
        words = [QUILLMERE, "generate", "--mood", "designflow", "--seconds", "2", "--home", str(self.home)]
        done = subprocess.run(words, env=self.environment, preexec_fn=lambda: [os.close(number) for number in range(3)])
        self.assertEqual(done.returncode, 1)
        self.assertEqual(len(self.assert_complete()), 1)
        for file in self.loops.iterdir():
            self.assertNotIn(b"designflow_b1", file.read_bytes() if file.name == ".lock" else b"")

    def test_closed_standard_streams_stay_nobodys_files(self):
        engine = self.script("engine", """#!/bin/sh
read request
host=$(sed -n 's/^PPid:\t//p' /proc/$PPID/status)
(cat /proc/$host/comm; readlink /proc/$host/fd/0 /proc/$host/fd/1 /proc/$host/fd/2) > "$TMPDIR/seen"
""")
        words = [QUILLMERE, "generate", "--mood", "designflow", "--engine", str(engine), "--home", str(self.home)]
        subprocess.run(words, env=self.environment, preexec_fn=lambda: [os.close(number) for number in range(3)])
        self.assertEqual((self.place / "seen").read_text().split(), ["quillmere", *["/dev/null"] * 3])

    def test_help_has_an_example_for_every_verb(self):
        done = self.run_host("--help", home=False)
        self.assertIn("Exit status", done.out)
        for verb in re.findall(r"(?m)^  ([a-z]+) ", done.out.split("Subcommands:")[1]):
            self.assertIn(f"Example: quillmere {verb}", self.run_host(verb, "--help", home=False).out)

    def test_words_of_the_command_line_cannot_steer_the_terminal(self):
        for words in (["generate", "--mood", "designflow", "--count", "\x1b[31m"], ["moods", "list", "\x1b[2J\u202e"],
                      ["\x1b[2J"], ["moods", "--\x1b[2J"]):
            done = self.run_host(*words, expect=2)
            self.assertNotRegex(done.out + done.err, "[\x1b\u202e]")

    def test_help_that_cannot_be_written_is_a_failure(self):
        for words in (["--help"], ["--version"], ["generate", "--help"]):
            with open("/dev/full", "w") as full:
                done = subprocess.run([QUILLMERE, *words], env=self.environment, stdout=full, stderr=subprocess.PIPE)
            self.assertEqual((done.returncode, b"could not be written" in done.stderr), (1, True), words)

    def test_version(self):
        self.assertRegex(self.run_host("--version", home=False).out, r"^quillmere \d+\.\d+\.\d+\n$")


class MoodsTests(HostTest):
    def test_lists_the_moods_by_family(self):
        lines = self.run_host("moods").out.splitlines()

        self.assertEqual([line for line in lines if line and not line.startswith(" ")], ["Focus", "Ambient", "Wind down"])
        self.assertIn("  deepcode         Deep Code", lines)
        self.assertIn("  writing          Writing  (no music yet)", lines)

    def test_json_lists_all_moods_with_their_prompts(self):
        moods = json.loads(self.run_host("moods", "--json").out)

        self.assertEqual(len(moods), 18)
        playable = [mood["id"] for mood in moods if mood["isPlayable"]]
        self.assertEqual(playable, ["deepcode", "sprint", "meetingprep", "designflow", "winddown", "recovery"])
        self.assertEqual(moods[0]["prompts"]["calm"], "sustained warm pads, gentle motion, smooth, instrumental")


if __name__ == "__main__":
    unittest.main(verbosity=2)
