"""Looks at the system calls of the real program, as strace sees them: what is renamed was synced before, the folder is
synced after it, and audio is safe before the list that names it."""
import os
import pathlib
import re
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "App"))

import unittest

from host import QUILLMERE, HostTest, with_lossless

CALLS = "openat,mkdir,mkdirat,write,pwrite64,ftruncate,fsync,rename,renameat,renameat2,link,linkat"
LINE = re.compile(r"^(\d+) +(.*)$")
CALL = re.compile(r"^(\w+)\((.*)\) += (-?\d+)")
DESCRIPTOR = re.compile(r"^\d+<([^>]*)>")
STDOUT = re.compile(r"^1<pipe:")
NAMES = re.compile(r'(?:(AT_FDCWD|\d+)(?:<([^>]*)>)?, )?"([^"]*)"')


def calls_of(log):
    """The calls that succeeded, in the order in which they ended: (name, arguments)."""
    unfinished = {}
    for line in log.splitlines():
        match = LINE.match(line)
        if not match:
            continue
        process, text = match.groups()
        if text.endswith("<unfinished ...>"):
            unfinished[process] = text.removesuffix("<unfinished ...>").rstrip()
            continue
        resumed = re.match(r"^<\.\.\. \w+ resumed>(.*)$", text)
        if resumed:
            text = unfinished.pop(process, "") + resumed.group(1)
        call = CALL.match(text)
        if call and int(call.group(3)) >= 0:
            yield call.group(1), call.group(2)


def paths_in(arguments):
    """The whole paths of the names that a call was given."""
    return [os.path.normpath(os.path.join(folder or "", name)) for _, folder, name in NAMES.findall(arguments)]


def is_nobodys_loss(path):
    """A temporary file until it gets its real name, a lock, and a working folder: gone after a power cut, or left."""
    name = os.path.basename(path)
    return name.startswith(".") or "/Render-" in path


class SyncOrderTests(HostTest):
    def traced(self, *arguments):
        log = self.place / "calls"
        words = ["strace", "-f", "-y", "-s", "0", "-e", f"trace={CALLS}", "-o", str(log), QUILLMERE,
                 *map(str, arguments), "--home", str(self.home)]
        done = subprocess.run(words, env=self.environment, capture_output=True, text=True, timeout=300)
        self.assertEqual(done.returncode, 0, done.stderr)
        return list(calls_of(log.read_text()))

    def assert_order(self, calls, tells=False):
        """`tells`: whatever the program says, it says of what it has done."""
        dirty = set()  # files with bytes that are not synced
        unsafe = {}  # new names whose folder is not synced, and where they came from
        renames = manifests = 0
        for name, arguments in calls:
            if name == "write" and STDOUT.match(arguments) and tells:
                self.assertEqual(unsafe, {}, "the user is told before the names are safe")
            if name in ("write", "pwrite64", "ftruncate", "fsync"):
                descriptor = DESCRIPTOR.match(arguments)
                if not descriptor or not descriptor.group(1).startswith(str(self.home)):
                    continue
                path = descriptor.group(1)
                if name != "fsync":
                    dirty.add(path)
                    continue
                dirty.discard(path)
                for new in [new for new in unsafe if os.path.dirname(new) == path]:
                    del unsafe[new]
                continue
            if name == "openat" and "O_CREAT" not in arguments:
                continue
            paths = paths_in(arguments)
            if name in ("openat", "mkdir", "mkdirat"):
                new = paths[0]
                if new.startswith(str(self.home) + "/") and not is_nobodys_loss(new):
                    unsafe[new] = "made under its name"
                continue
            self.assertEqual(len(paths), 2, arguments)
            old, new = paths
            if not new.startswith(str(self.home)) or os.path.basename(new).startswith("Render-"):
                continue  # a working folder: gone after a power cut, and nobody's loss
            unsafe.pop(old, None)
            self.assertNotIn(old, dirty, f"{new} is given its name before its bytes are safe")
            renames += 1
            if os.path.basename(new) == "manifest.json":
                manifests += 1
                audio = [path for path in set(unsafe) | dirty if path.endswith((".wav", ".m4a"))
                         and os.path.dirname(path) == str(self.loops)]
                self.assertEqual(audio, [], "the manifest is written before the audio that it names is safe")
            unsafe[new] = old
        self.assertEqual(unsafe, {}, "the program ended, and the names are not safe")
        self.assertGreater(renames, 0, "the trace shows nothing")
        return renames, manifests

    def test_generating_syncs_before_it_tells(self):
        calls = self.traced("generate", "--mood", "designflow", "--seconds", "1", "--count", "3")

        renames, manifests = self.assert_order(calls)

        self.assertGreaterEqual(manifests, 3)
        print(f"generate: {renames} names given, {manifests} manifests, "
              f"{sum(1 for name, _ in calls if name == 'fsync')} syncs", file=sys.stderr)

    def test_the_audio_of_an_engine_that_syncs_nothing_is_synced(self):
        engine = pathlib.Path(__file__).resolve().parents[2] / "Examples" / "engine.py"

        calls = self.traced("generate", "--mood", "designflow", "--seconds", "1", "--engine", f"python3 {engine}")

        self.assert_order(calls)

    def assert_names_are_given(self, least, *arguments):
        renames, _ = self.assert_order(self.traced(*arguments), tells=True)
        self.assertGreaterEqual(renames, least)

    def test_a_mood_is_safe_when_its_making_is_told(self):
        self.assert_names_are_given(1, "moods", "new", "--name", "Rain", "--calm-text", "soft", "--energetic-text", "loud")

    def test_recipes_are_safe_when_their_writing_is_told(self):
        self.generate(seconds=1)
        recipe = self.home / "shared" / "recipe.json"
        recipe.parent.mkdir()
        piece = self.manifest()[0]["url"].rpartition("_")[2].removesuffix(".wav")

        self.assert_names_are_given(1, "recipe", "export", piece, "--output", str(recipe))
        self.assert_names_are_given(1, "vault", "import", recipe)

    @with_lossless
    def test_housekeeping_is_safe_when_it_is_told(self):
        self.generate(count=2, seconds=1)

        self.assert_names_are_given(2, "library", "migrate")
        self.assert_names_are_given(1, "library", "prune", "--keep", "0", "--yes")


if __name__ == "__main__":
    unittest.main(verbosity=2)
