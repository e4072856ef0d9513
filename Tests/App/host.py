"""What the tests of the command-line host share: a place of its own for each test, and ways to run the program."""
import json
import os
import pathlib
import resource
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest
import wave

QUILLMERE = os.environ["QUILLMERE"]
# For the tests of lossless files, in builds that can read them.
with_lossless = unittest.skipUnless(os.environ.get("QUILLMERE_HAS_LOSSLESS", "1") == "1", "built without lossless files")


class HostTest(unittest.TestCase):
    """A test with a home of its own. Nothing of the user's is in reach: HOME and the XDG folders lie in it too."""

    def setUp(self):
        self.place = pathlib.Path(tempfile.mkdtemp(prefix="quillmere-host-"))
        self.addCleanup(shutil.rmtree, self.place, ignore_errors=True)
        self.home = self.place / "home"
        self.loops = self.home / "Loops"
        self.environment = {
            "PATH": os.environ["PATH"],
            "HOME": str(self.place / "user"),
            "XDG_DATA_HOME": str(self.place / "data"),
            "XDG_CONFIG_HOME": str(self.place / "config"),
            "TMPDIR": str(self.place),
            "QUILLMERE_RESOURCES": str(pathlib.Path(__file__).parents[2] / "App" / "Resources"),  # without seeds
            "LC_ALL": "C.UTF-8",
        }
        for name in ("ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "LSAN_OPTIONS"):
            if name in os.environ:
                self.environment[name] = os.environ[name]

    def start(self, *arguments, home=True, **options):
        """Starts the program with its output piped."""
        words = [QUILLMERE, *map(str, arguments)] + (["--home", str(self.home)] if home else [])
        environment = self.environment | options.pop("environment", {})
        return subprocess.Popen(words, env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True, **options)

    def run_host(self, *arguments, expect=0, **options):
        """Runs the program to its end; the test fails unless it ends as expected."""
        process = self.start(*arguments, **options)
        out, err = process.communicate(timeout=120)
        self.assertEqual(process.returncode, expect, f"{arguments}\n{out}\n{err}")
        process.out, process.err = out, err
        return process

    def run_json(self, *arguments, **options):
        """The same with --json: what an independent reader makes of the output."""
        done = self.run_host(*arguments, "--json", **options)
        subprocess.run([sys.executable, "-m", "json.tool"], input=done.out, text=True, check=True, capture_output=True)
        return json.loads(done.out)

    def run_without_space(self, *words, size=0):
        """Runs the program to its end where no file can be written beyond `size` bytes, as on a full disk."""
        def limit():
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (size, size))

        return subprocess.run([QUILLMERE, *map(str, words), "--home", str(self.home)], env=self.environment,
                              preexec_fn=limit, capture_output=True, text=True, timeout=120)

    def run_failing(self, injection, files, *arguments, expect=0):
        """Runs the program to its end where its calls on `files` fail as strace's option `inject` says."""
        words = ["strace", "-f", "-o", "/dev/null", "-e", f"inject={injection}"]
        words += [f"--trace-path={file}" for file in files]
        # The leak sanitizer cannot look at a process that is traced.
        environment = self.environment | {"ASAN_OPTIONS": "detect_leaks=0"}
        done = subprocess.run([*words, QUILLMERE, *map(str, arguments), "--home", str(self.home)], env=environment,
                              capture_output=True, text=True, timeout=120)
        self.assertEqual(done.returncode, expect, f"{arguments}\n{done.stdout}\n{done.stderr}")
        done.out, done.err = done.stdout, done.stderr
        return done

    def generate(self, *arguments, mood="designflow", seconds=4, count=1, **options):
        return self.run_host("generate", "--mood", mood, "--seconds", seconds, "--count", count, *arguments, **options)

    def manifest(self, loops=None):
        return json.loads(((loops or self.loops) / "manifest.json").read_text(encoding="utf-8"))

    def audio(self, loops=None):
        return sorted((loops or self.loops).glob("*.wav"))

    def assert_help(self, *verb):
        """Every part of a verb explains itself, with an example that begins like the part itself."""
        done = self.run_host(*verb, "--help", home=False)
        self.assertIn("Example: quillmere " + " ".join(verb), done.out)
        self.assertIn("--json", done.out)

    def script(self, name, text):
        """An executable script."""
        file = self.place / name
        file.write_text(text, encoding="utf-8")
        file.chmod(0o755)
        return file

    def assert_complete(self, loops=None):
        """Every entry of the manifest is whole audio, and no work is left behind."""
        loops = loops or self.loops
        entries = self.manifest(loops) if (loops / "manifest.json").exists() else []
        for entry in entries:
            path = pathlib.Path(entry["url"].removeprefix("file://"))
            with wave.open(str(path)) as audio:
                self.assertEqual((audio.getframerate(), audio.getnchannels(), audio.getsampwidth()), (48000, 2, 2))
                self.assertEqual(audio.getnframes(), round(entry["seconds"] * 48000))
                self.assertEqual(len(audio.readframes(audio.getnframes())), audio.getnframes() * 4)
        return entries


def processes_below(folder):
    """The ids of the processes whose working folder lies below `folder`: engines and their supervisors."""
    found = []
    for entry in pathlib.Path("/proc").iterdir():
        if not entry.name.isdigit():
            continue
        try:
            if os.readlink(entry / "cwd").startswith(str(folder)):
                found.append(int(entry.name))
        except OSError:
            pass
    return found


def interrupt(process):
    process.send_signal(signal.SIGINT)
