"""What programs of other people make of every kind of file that the host writes: FFmpeg and SoX of the audio, Python's
JSON tool of everything else."""
import json
import os
import pathlib
import subprocess
import sys
import unittest

from host import HostTest, with_lossless


def run(*words):
    return subprocess.run(list(map(str, words)), check=True, capture_output=True, text=True)


def probe(file):
    """What ffprobe says of the file's only stream."""
    told = run("ffprobe", "-v", "error", "-show_streams", "-show_format", "-of", "json", file)
    if told.stderr:
        raise AssertionError(f"ffprobe of {file}: {told.stderr}")
    told = json.loads(told.stdout)
    (stream,) = told["streams"]
    return stream, float(told["format"]["duration"])


def decoded(file):
    """SHA-256 of the samples as FFmpeg decodes them; any complaint of the decoder is an error."""
    told = run("ffmpeg", "-v", "error", "-xerror", "-i", file, "-c:a", "pcm_s16le", "-f", "hash", "-hash", "sha256", "-")
    if told.stderr:
        raise AssertionError(f"ffmpeg of {file}: {told.stderr}")
    return told.stdout.strip().removeprefix("SHA256=")


def sox(file):
    """What SoX finds in a WAV file: its header's values, and the peak of its samples."""
    def header(flag):
        return run("soxi", flag, file).stdout.strip()

    statistics = run("sox", file, "-n", "stats")
    values = dict(line.rsplit(None, 3)[0:2] if "dB" in line else (line, "") for line in statistics.stderr.splitlines())
    return {"rate": int(header("-r")), "channels": int(header("-c")), "bits": int(header("-b")),
            "frames": int(header("-s")), "encoding": header("-e"), "peak": float(values["Pk lev dB"])}


class OtherToolsTests(HostTest):
    def assert_wav(self, file, seconds):
        stream, duration = probe(file)
        self.assertEqual((stream["codec_name"], stream["sample_rate"], stream["channels"], stream["bits_per_sample"]),
                         ("pcm_s16le", "48000", 2, 16))
        self.assertEqual(duration, seconds)
        found = sox(file)
        self.assertLess(found.pop("peak"), 0, "it reaches full scale")
        self.assertEqual(found, {"rate": 48000, "channels": 2, "bits": 16, "frames": round(seconds * 48000),
                                 "encoding": "Signed Integer PCM"})

    def assert_alac(self, file, seconds):
        stream, duration = probe(file)
        self.assertEqual((stream["codec_name"], stream["sample_rate"], stream["channels"],
                          int(stream["bits_per_raw_sample"]), stream["duration_ts"]),
                         ("alac", "48000", 2, 16, round(seconds * 48000)))
        self.assertAlmostEqual(duration, seconds, places=3)

    def assert_json(self, *files):
        for file in files:
            with self.subTest(file=file.name):
                run(sys.executable, "-m", "json.tool", file)

    def test_a_generated_piece(self):
        self.generate(count=2)
        for file in self.audio():
            self.assert_wav(file, 4)
            decoded(file)

    def test_what_the_player_would_play(self):
        self.generate(count=2)
        self.run_host("play", "--mood", "designflow", "--minutes", 0.2, "--crossfade", 1, "--output", self.place / "out.wav")
        self.assert_wav(self.place / "out.wav", 12)

    @with_lossless
    def test_a_piece_that_was_made_lossless(self):
        self.generate(count=2)
        before = {file.stem: decoded(file) for file in self.audio()}
        self.run_host("library", "migrate")
        files = sorted(self.loops.glob("*.m4a"))
        for file in files:
            self.assert_alac(file, 4)
        self.assertEqual({file.stem: decoded(file) for file in files}, before)

    @unittest.skipUnless("QUILLMERE_SEEDS" in os.environ, "built without the pieces that ship")
    def test_a_piece_that_ships(self):
        loops = pathlib.Path(os.environ["QUILLMERE_SEEDS"]) / "Loops"
        self.assert_json(loops / "seeds.json")
        files = sorted(loops.glob("*.m4a"))
        self.assertTrue(files)
        for file in files:
            self.assert_alac(file, 120)
            decoded(file)

    def test_every_file_of_json(self):
        self.run_host("moods", "new", "--name", 'Night "train" \\ 夜\u2028', "--calm-tag", "genre=ambient", "--calm-bpm", 70,
                      "--energetic-text", "a\tb", "--energetic-tag", "genre=techno")
        (mood,) = (mood["id"] for mood in json.loads((self.home / "Moods.json").read_text())["moods"])
        self.generate()
        self.generate(mood=mood)
        self.run_host("settings", "pace", "gentle")
        self.run_host("schedule", "22:00-06:00")
        self.run_host("radio", "make", "designflow", mood)
        for piece in self.run_json("library", "list"):
            self.run_host("vault", "add", piece["fingerprint"])
            self.run_host("recipe", "export", piece["fingerprint"], "--output",
                          self.place / f"recipe-{piece['fingerprint']}.json")
        self.run_host("vault", "export", "--output", self.place / "bundle.json")
        written = [file for file in self.place.rglob("*.json") if file.is_file()]
        self.assert_json(*written)
        names = {"recipe" if file.name.startswith("recipe-") else file.name for file in written}
        self.assertEqual(names, {"manifest.json", "digests.json", "Moods.json", "saved.json", "settings.json", "recipe",
                                 "bundle.json"})

    def test_every_answer_that_is_asked_for_as_json(self):
        self.generate(count=2)
        piece = json.loads(self.run_host("library", "list", "--json").out)[0]["fingerprint"]
        recipe = self.place / "recipe.json"
        self.run_host("recipe", "export", piece, "--output", recipe)
        for words in (["moods", "list"], ["moods", "show", "designflow"], ["moods", "prompt", "designflow", "--blend", 2],
                      ["personas"], ["tags"], ["engines"], ["settings"], ["schedule"], ["status"], ["radio", "make", "designflow"],
                      ["radio", "show"],
                      ["library", "list"], ["library", "show", piece], ["library", "measure"],
                      ["library", "prune", "--keep", 1], ["library", "trash", piece], ["library", "migrate", "--dry-run"],
                      ["library", "verify"], ["library", "recover"], ["recipe", "show", recipe], ["recipe", "check", recipe],
                      ["vault", "list"], ["vault", "import", recipe]):
            with self.subTest(words=words):
                self.run_json(*words)  # reads it with that tool
        self.run_json("digest", self.audio()[0], home=False)

    def test_the_events_of_a_generation_line_by_line(self):
        for line in self.generate("--json").out.splitlines():
            subprocess.run([sys.executable, "-m", "json.tool"], input=line, text=True, check=True, capture_output=True)


if __name__ == "__main__":
    unittest.main()
