"""The host's verb `digest`, run as its user would."""
import hashlib
import subprocess
import unittest
import wave

from host import QUILLMERE, HostTest, with_lossless


class DigestTests(HostTest):
    def tone(self, name, frames=48000, rate=48000, channels=2, width=2):
        file = self.place / name
        with wave.open(str(file), "wb") as audio:
            audio.setparams((channels, width, rate, 0, "NONE", ""))
            audio.writeframes(bytes((i * 7919 >> 3) & 0xff for i in range(frames * channels * width)))
        return file

    def samples(self, file):
        with wave.open(str(file)) as audio:
            return audio.readframes(audio.getnframes())

    def digest(self, *files, **options):
        return self.run_host("digest", *files, home=False, **options)

    def test_has_help_with_an_example(self):
        self.assert_help("digest")

    def test_is_the_digest_of_the_samples(self):
        for channels, rate in ((2, 48000), (1, 44100)):
            file = self.tone("tone.wav", rate=rate, channels=channels)
            expected = hashlib.sha256(self.samples(file)).hexdigest()
            self.assertEqual(self.digest(file).out, f"{expected}  {file}\n")

    def test_json_lists_the_files_in_order(self):
        files = [self.tone("a.wav", frames=100), self.tone("b.wav", frames=200)]
        listed = self.run_json("digest", *files, home=False)
        self.assertEqual(listed, [{"file": str(file), "digest": hashlib.sha256(self.samples(file)).hexdigest()}
                                  for file in files])

    def test_a_file_that_is_no_audio_fails_and_the_others_are_still_told(self):
        good = self.tone("good.wav", frames=10)
        short = self.place / "short.wav"
        short.write_bytes(good.read_bytes()[:-1])
        wide = self.tone("wide.wav", width=3)
        for bad in (short, wide, self.place / "none.wav", self.place):
            done = self.digest(bad, good, expect=1)
            self.assertIn(str(bad), done.err)
            self.assertEqual(done.out.count(str(good)), 1)
            self.assertEqual(len(done.out.splitlines()), 1)
            self.assertEqual(len(self.run_json("digest", bad, good, home=False, expect=1)), 1)

    def test_names_cannot_steer_the_terminal(self):
        file = self.tone("a\x1b[31m.wav", frames=10)
        done = self.digest(file, self.place / "b\x1b[2J.wav", expect=1)
        self.assertNotIn("\x1b", done.out + done.err)

    def test_names_that_are_no_text_are_read_all_the_same(self):
        file = self.tone("a\udcff.wav", frames=10)
        self.assertEqual(len(self.digest(file).out.split()[0]), 64)
        self.assertIn("a\ufffd.wav", self.run_json("digest", file, home=False)[0]["file"])

    def test_loads_nothing_heavy(self):
        file = self.tone("tone.wav")
        log = self.place / "opened"
        # The leak sanitizer cannot look at a process that is traced.
        environment = self.environment | {"ASAN_OPTIONS": "detect_leaks=0"}
        subprocess.run(["strace", "-f", "-o", log, "-e", "trace=openat", QUILLMERE, "digest", file],
                       env=environment, check=True, capture_output=True, timeout=60)
        opened = log.read_text()
        self.assertIn("libcrypto", opened)
        for heavy in ("libavcodec", "libavformat", "libgio", "libglib", "QuillmereLossless", "zoneinfo"):
            self.assertNotIn(heavy, opened)

    @with_lossless
    def test_a_lossless_copy_has_the_same_digest(self):
        file = self.tone("tone.wav")
        copy = self.place / "copy.m4a"
        subprocess.run(["ffmpeg", "-v", "error", "-i", file, "-c:a", "alac", copy], check=True, timeout=60)
        self.assertEqual(self.digest(copy).out.split()[0], self.digest(file).out.split()[0])


if __name__ == "__main__":
    unittest.main()
