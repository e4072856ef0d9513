"""The host's verb `play`, run as its user would."""
import array
import json
import math
import pathlib
import resource
import signal
import subprocess
import unittest
import wave

from host import QUILLMERE, HostTest, interrupt

RATE = 48000


def samples(file):
    with wave.open(str(file)) as audio:
        assert (audio.getframerate(), audio.getnchannels(), audio.getsampwidth()) == (RATE, 2, 2)
        return array.array("h", audio.readframes(audio.getnframes()))


class PlayTests(HostTest):
    def setUp(self):
        super().setUp()
        self.output = self.place / "out.wav"

    def library(self, pieces, mood="designflow"):
        """A library made by hand. Each piece: its samples (left and right alike), and its loudness record or None."""
        self.loops.mkdir(parents=True, exist_ok=True)
        manifest = self.loops / "manifest.json"
        entries = json.loads(manifest.read_text()) if manifest.exists() else []
        for values, loudness in pieces:
            file = self.loops / f"{mood}{len(entries)}.wav"
            with wave.open(str(file), "wb") as audio:
                audio.setparams((2, 2, RATE, 0, "NONE", ""))
                audio.writeframes(array.array("h", [v for value in values for v in (value, value)]).tobytes())
            entry = {"identity": {"moodID": mood, "blend": {"index": 1}, "calmPrompt": "", "energeticPrompt": "",
                                  "seed": len(entries), "model": "sa3_medium_mlx_v2", "recipe": 1},
                     "url": f"file://{file}", "seconds": len(values) / RATE}
            if loudness:
                entry["quality"] = {"brightness": 0, "makeupDB": 0, "loudness": loudness}
            entries.append(entry)
        manifest.write_text(json.dumps(entries))

    def play(self, *arguments, seconds=4, crossfade=0.5, seed=1, **options):
        return self.run_json("play", "--output", self.output, "--mood", "designflow", "--minutes", seconds / 60,
                             "--crossfade", crossfade, "--seed", seed, *arguments, **options)

    # Loud enough and measured whole: played as it is, for its gain is 0 dB.
    AS_IT_IS = {"integratedLUFS": -18.0, "peak": 0.5, "seconds": 60}

    def test_has_help_with_an_example(self):
        self.assert_help("play")

    def test_a_piece_at_0_db_is_played_bit_for_bit(self):
        values = [(i * 37) % 20000 - 10000 for i in range(4 * RATE)]
        self.library([(values, self.AS_IT_IS)])

        played = self.play(seconds=3, crossfade=0)

        self.assertEqual(played["seconds"], 3)
        self.assertEqual(samples(self.output), array.array("h", [v for x in values[:3 * RATE] for v in (x, x)]))

    def test_gains_follow_the_loudness_measured(self):
        level = 1000
        cases = (({"integratedLUFS": -12.0, "peak": 0.5, "seconds": 60}, -6.0),  # to the target
                 ({"integratedLUFS": -30.0, "peak": 0.1, "seconds": 60}, 6.0),  # never more than 6 dB
                 ({"integratedLUFS": -20.0, "peak": 0.95, "seconds": 60}, 0.0),  # the peak's ceiling
                 ({"integratedLUFS": -30.0, "peak": 0.1, "seconds": 0.5}, -1.0),  # a partial measurement is not trusted
                 ({"integratedLUFS": -12.0, "peak": 0.5, "seconds": 0.5}, -7.0), (None, -1.0))
        for loudness, gain in cases:
            with self.subTest(loudness):
                if self.loops.exists():
                    (self.loops / "manifest.json").unlink()
                self.library([([level] * 2 * RATE, loudness)])
                played = self.play("--force", seconds=1, crossfade=0)
                self.assertAlmostEqual(played["pieces"][0]["gainDB"], gain, places=9)
                self.assertLessEqual(abs(samples(self.output)[RATE] - level * 10 ** (gain / 20)), 0.5 + 1e-3)

    def test_pieces_are_cross_faded_at_equal_power(self):
        self.library([([8000] * 2 * RATE, self.AS_IT_IS), ([-4000] * 2 * RATE, self.AS_IT_IS)])
        played = self.play(seconds=3, crossfade=0.5)
        out = samples(self.output)[::2]

        first, second = (8000, -4000) if out[0] == 8000 else (-4000, 8000)
        self.assertEqual([piece["start"] for piece in played["pieces"]], [0, 1.5])
        fade, start = RATE // 2, RATE * 3 // 2
        for frame in range(0, start, 997):
            self.assertEqual(out[frame], first)
        for frame in range(0, fade, 101):
            angle = (frame + 0.5) / fade * math.pi / 2
            self.assertLessEqual(abs(out[start + frame] - (first * math.cos(angle) + second * math.sin(angle))), 0.51)
        for frame in range(start + fade, 5 * RATE // 2, 997):
            self.assertEqual(out[frame], second)
        # The stream's own end is faded out.
        self.assertLess(abs(out[-1]), 2)

    def test_too_loud_a_sum_is_held_at_full_scale(self):
        self.library([([30000] * RATE, self.AS_IT_IS), ([30000] * RATE, self.AS_IT_IS)])
        self.play(seconds=1.5, crossfade=0.5)
        self.assertEqual(max(samples(self.output)), 32767)
        self.assertGreaterEqual(min(samples(self.output)), 0)

    def test_rounds_are_shuffled_by_the_seed_and_no_piece_follows_itself(self):
        self.library([([100 + i] * RATE, self.AS_IT_IS) for i in range(5)])

        def order(seed):
            done = self.play("--force", seed=seed, seconds=25, crossfade=0)
            return [piece["fingerprint"] for piece in done["pieces"]]

        one, again, other = order(1), order(1), order(2)
        self.assertEqual(one, again)
        self.assertNotEqual(one, other)
        self.assertEqual(one[:5], sorted(one[:5]))
        for start in range(0, 25, 5):
            self.assertEqual(sorted(one[start:start + 5]), sorted(one[:5]))
        self.assertTrue(all(a != b for a, b in zip(one, one[1:])))

    def test_several_moods_take_turns(self):
        self.library([([1] * RATE, None)] * 2)
        self.library([([2] * RATE, None)] * 2, mood="sprint")
        played = self.play("--mood", "sprint", "--turn", 2, seconds=6, crossfade=0)
        self.assertEqual([piece["moodID"] for piece in played["pieces"]],
                         ["designflow"] * 2 + ["sprint"] * 2 + ["designflow"] * 2)

    def test_without_a_mood_the_radio_plays(self):
        self.library([([1] * RATE, None)])
        self.library([([2] * RATE, None)], mood="sprint")
        words = ["play", "--output", self.output, "--minutes", 0.03, "--turn", 1]
        self.assertIn("--mood", self.run_host(*words, expect=2).err)
        self.run_host("radio", "make", "designflow", "sprint", "--on-air", "sprint")
        played = self.run_json(*words)
        self.assertEqual([piece["moodID"] for piece in played["pieces"]][:2], ["sprint", "designflow"])

    def test_what_cannot_be_played_is_passed_over_and_named(self):
        self.library([([1] * RATE, None)] * 3)
        files = sorted(self.loops.glob("*.wav"))
        files[0].write_bytes(b"no audio")
        with wave.open(str(files[1]), "wb") as mono:
            mono.setparams((1, 2, RATE, 0, "NONE", ""))
            mono.writeframes(bytes(2 * RATE))

        done = self.run_host("play", "--mood", "designflow", "--minutes", 0.05, "--output", self.output)
        for file in files[:2]:
            self.assertIn(str(file), done.err)
        self.assertEqual(len(samples(self.output)), 2 * 3 * RATE)

        files[2].write_bytes(b"no audio")
        done = self.run_host("play", "--mood", "designflow", "--output", self.place / "none.wav", expect=1)
        self.assertIn("No piece could be played", done.err)
        self.assertFalse((self.place / "none.wav").exists())

    def test_what_is_shorter_than_a_second_is_passed_over(self):
        self.library([([1], None), ([1] * RATE, None)])
        done = self.run_host("play", "--mood", "designflow", "--minutes", 0.05, "--output", self.output)
        self.assertEqual(done.err.count("is shorter than a second"), 1)
        self.assertEqual(len(samples(self.output)), 2 * 3 * RATE)

    def test_a_mood_of_which_nothing_can_be_played_leaves_the_air_to_the_others(self):
        self.library([([1] * RATE, None)] * 2)
        self.library([([2] * RATE, None)] * 2, mood="sprint")
        self.library([([3] * RATE, None)] * 2, mood="recovery")
        for file in self.loops.glob("designflow*.wav"):
            file.write_bytes(b"no audio")
        words = ["--mood", "sprint", "--mood", "recovery"]

        played = self.play(*words, "--turn", 2, seconds=6, crossfade=0)
        self.assertEqual([piece["moodID"] for piece in played["pieces"]],
                         ["sprint"] * 2 + ["recovery"] * 2 + ["sprint"] * 2)
        played = self.play(*words, "--turn", 100, "--force", seconds=3, crossfade=0)
        self.assertEqual([piece["moodID"] for piece in played["pieces"]], ["sprint"] * 3)

        for file in self.loops.glob("*.wav"):
            file.write_bytes(b"no audio")
        done = self.run_host("play", "--mood", "designflow", *words, "--output", self.place / "none.wav", expect=1)
        self.assertIn("No piece could be played", done.err)
        self.assertEqual(done.err.count("\n"), 7, "each is named once")

    def test_what_cannot_be_played_does_not_count_for_a_moods_turn(self):
        self.library([([1] * RATE, None)] * 4)
        self.library([([2] * RATE, None)], mood="sprint")
        for file in sorted(self.loops.glob("designflow*.wav"))[:2]:
            file.write_bytes(b"no audio")
        played = self.play("--mood", "sprint", "--turn", 2, seconds=6, crossfade=0)
        self.assertEqual([piece["moodID"] for piece in played["pieces"]],
                         ["designflow"] * 2 + ["sprint"] * 2 + ["designflow"] * 2)

    def test_a_mood_without_pieces_says_how_to_get_some(self):
        done = self.run_host("play", "--mood", "sprint", "--output", self.output, expect=1)
        self.assertIn("quillmere generate --mood sprint", done.err)
        self.assertIn('Did you mean "sprint"?',
                      self.run_host("play", "--mood", "sprnt", "--output", self.output, expect=2).err)
        self.assertFalse(self.output.exists())

    def test_wrong_command_lines_are_told_apart(self):
        for words in (["--minutes", "0"], ["--minutes", "371"], ["--seed", "-1"], ["--crossfade", "-1"],
                      ["--crossfade", "nan"], ["--minutes", "nan"], ["--turn", "0"], ["--model", "large"]):
            self.run_host("play", "--mood", "designflow", "--output", self.output, *words, expect=2)
        self.run_host("play", "--mood", "designflow", expect=2)

    def test_an_existing_file_is_replaced_only_when_asked(self):
        self.library([([1] * RATE, None)])
        self.output.write_text("mine")
        words = ["play", "--mood", "designflow", "--minutes", 0.01, "--output", self.output]
        self.assertIn("--force", self.run_host(*words, expect=1).err)
        self.assertEqual(self.output.read_text(), "mine")
        self.run_host(*words, "--force")
        self.assertEqual(len(samples(self.output)), round(0.6 * RATE) * 2)
        self.run_host("play", "--mood", "designflow", "--output", self.place, "--force", expect=1)
        self.run_host("play", "--mood", "designflow", "--output", self.place / "no" / "x.wav", expect=1)

    def test_a_full_disk_leaves_nothing_behind(self):
        self.library([([1] * RATE, None)])
        limit = 1 << 20
        done = subprocess.run([QUILLMERE, "play", "--mood", "designflow", "--output", self.output, "--home", self.home],
                              env=self.environment, capture_output=True, text=True, timeout=60,
                              preexec_fn=lambda: (signal.signal(signal.SIGXFSZ, signal.SIG_IGN),
                                                  resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit))))
        self.assertEqual(done.returncode, 1, done.stderr)
        self.assertEqual([path.name for path in self.place.iterdir() if path.suffix in (".wav", ".part")], [])

    def test_music_can_be_made_while_other_music_plays(self):
        self.library([([1] * RATE, None)])
        process = self.start("play", "--mood", "designflow", "--minutes", 370, "--output", self.output)
        while not list(self.place.glob(".quillmere-*.part")) and process.poll() is None:
            pass
        self.generate(seconds=2)
        self.assertIsNone(process.poll())
        interrupt(process)
        process.communicate(timeout=60)

    def test_an_interrupt_leaves_nothing_behind(self):
        self.library([([1] * RATE, None)])
        process = self.start("play", "--mood", "designflow", "--minutes", 370, "--output", self.output)
        while not list(self.place.glob(".quillmere-*.part")) and process.poll() is None:
            pass
        interrupt(process)
        process.communicate(timeout=60)
        self.assertEqual(process.returncode, 130)
        self.assertEqual([path.name for path in self.place.iterdir() if path.suffix in (".wav", ".part")], [])

    def test_memory_does_not_grow_with_the_length(self):
        self.library([([1] * 10 * RATE, None)] * 2)

        def peak(minutes):
            done = subprocess.run(["/usr/bin/env", "python3", "-c",
                                   "import resource, subprocess, sys\n"
                                   "subprocess.run(sys.argv[1:], check=True, stdout=subprocess.DEVNULL)\n"
                                   "print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)",
                                   QUILLMERE, "play", "--mood", "designflow", "--minutes", str(minutes), "--output",
                                   self.output, "--force", "--home", self.home], env=self.environment,
                                  capture_output=True, text=True, check=True, timeout=120)
            return int(done.stdout)

        short, long = peak(0.1), peak(5)  # 1 MB and 57 MB of audio
        self.assertLess(long - short, 8 * 1024)

    def test_generated_pieces_are_played(self):
        self.generate("--seed", 7, seconds=8, count=2)
        played = self.run_json("play", "--mood", "designflow", "--minutes", 0.2, "--crossfade", 2, "--output",
                               self.output)
        self.assertEqual(len(played["pieces"]), 2)
        self.assertEqual(len(samples(self.output)), 2 * 12 * RATE)
        for piece in played["pieces"]:
            self.assertTrue(pathlib.Path(piece["file"]).exists())


if __name__ == "__main__":
    unittest.main()
