"""Looks at the system calls of the real program, as strace sees them: what is renamed was synced before, the folder is
synced after it and after a removal, audio is safe before the list that names it, and nothing is told before."""
import os
import pathlib
import re
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "App"))

import unittest

from host import QUILLMERE, HostTest, with_lossless

CALLS = ("openat,mkdir,mkdirat,write,pwrite64,ftruncate,fsync,rename,renameat,renameat2,link,linkat,"
         "unlink,unlinkat,rmdir")
LINE = re.compile(r"^(\d+) +(.*)$")
CALL = re.compile(r"^(\w+)\((.*)\) += (-?\d+)")
DESCRIPTOR = re.compile(r"^\d+<([^>]*)>")
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
        # A file, not a pipe: its name tells what the program says from what its engine says.
        self.said = self.place / "said"
        with self.said.open("w") as said:
            done = subprocess.run(words, env=self.environment, stdout=said, stderr=subprocess.PIPE, text=True,
                                  timeout=300)
        self.assertEqual(done.returncode, 0, done.stderr)
        return list(calls_of(log.read_text()))

    def is_audio(self, path):
        return path.endswith((".wav", ".m4a")) and os.path.dirname(path) == str(self.loops)

    def assert_order(self, calls):
        """Returns what happened, in order: "named", "manifest" (named too), "removed" and "told"."""
        dirty = set()  # files with bytes that are not synced
        unsafe = {}  # new names whose folder is not synced, and where they came from
        gone = set()  # removed names whose folder is not synced
        events = []
        for name, arguments in calls:
            if name in ("write", "pwrite64", "ftruncate", "fsync"):
                descriptor = DESCRIPTOR.match(arguments)
                path = descriptor.group(1) if descriptor else ""
                if path == str(self.said):
                    self.assertEqual(unsafe, {}, "the user is told before the names are safe")
                    self.assertEqual(gone, set(), "the user is told before the removals are safe")
                    events.append("told")
                if not path.startswith(str(self.home)):
                    continue
                if name != "fsync":
                    dirty.add(path)
                    continue
                dirty.discard(path)
                unsafe = {new: old for new, old in unsafe.items() if os.path.dirname(new) != path}
                gone = {old for old in gone if os.path.dirname(old) != path}
                continue
            if name == "openat" and "O_CREAT" not in arguments:
                continue
            paths = paths_in(arguments)
            if name in ("openat", "mkdir", "mkdirat"):
                new = paths[0]
                if new.startswith(str(self.home) + "/") and not is_nobodys_loss(new):
                    unsafe[new] = "made under its name"
                continue
            if name in ("unlink", "unlinkat", "rmdir"):
                old = paths[0]
                dirty.discard(old)
                if old.startswith(str(self.home) + "/") and not is_nobodys_loss(old):
                    if self.is_audio(old):
                        self.assertEqual(unsafe, {}, f"{old} goes before what was done until then is safe")
                    gone.add(old)
                    events.append("removed")
                continue
            self.assertEqual(len(paths), 2, arguments)
            old, new = paths
            if not new.startswith(str(self.home)) or os.path.basename(new).startswith("Render-"):
                continue  # a working folder: gone after a power cut, and nobody's loss
            unsafe.pop(old, None)
            self.assertNotIn(old, dirty, f"{new} is given its name before its bytes are safe")
            if not is_nobodys_loss(new):
                events.append("named")
            if os.path.basename(new) == "manifest.json":
                events.append("manifest")
                audio = [path for path in set(unsafe) | dirty if self.is_audio(path)]
                self.assertEqual(audio, [], "the manifest is written before the audio that it names is safe")
                audio = [path for path in gone if self.is_audio(path)]
                self.assertEqual(audio, [], "the manifest forgets audio that a power cut brings back")
            unsafe[new] = old
        self.assertEqual(unsafe, {}, "the program ended, and the names are not safe")
        self.assertEqual(gone, set(), "the program ended, and the removals are not safe")
        self.assertIn("named", events, "the trace shows nothing")
        return events

    def events_of(self, *arguments, among):
        return [event for event in self.assert_order(self.traced(*arguments)) if event in among]

    def test_generating_syncs_before_it_tells(self):
        calls = self.traced("generate", "--mood", "designflow", "--seconds", "1", "--count", "3")

        events = self.assert_order(calls)

        self.assertEqual([event for event in events if event in ("manifest", "told")], ["manifest", "told"] * 3)
        print(f"generate: {events.count('named')} names given, {events.count('manifest')} manifests, "
              f"{sum(1 for name, _ in calls if name == 'fsync')} syncs", file=sys.stderr)

    def test_the_audio_of_an_engine_that_syncs_nothing_is_synced(self):
        engine = pathlib.Path(__file__).resolve().parents[2] / "Examples" / "engine.py"

        events = self.events_of("generate", "--mood", "designflow", "--seconds", "1", "--engine", f"python3 {engine}",
                                among=("manifest", "told"))

        self.assertEqual(events, ["manifest", "told"])

    def test_a_mood_is_safe_when_its_making_is_told(self):
        events = self.events_of("moods", "new", "--name", "Rain", "--calm-text", "soft", "--energetic-text", "loud",
                                among=("named", "told"))

        self.assertEqual(events, ["named", "told"])

    def test_recipes_are_safe_when_their_writing_is_told(self):
        self.generate(seconds=1)
        recipe = self.home / "shared" / "recipe.json"
        recipe.parent.mkdir()
        piece = self.manifest()[0]["url"].rpartition("_")[2].removesuffix(".wav")

        for words in (("recipe", "export", piece, "--output", recipe), ("vault", "import", recipe)):
            self.assertEqual(self.events_of(*words, among=("named", "told")), ["named", "told"], words)

    @with_lossless
    def test_audio_goes_after_the_manifest_names_its_twin_and_pruned_audio_before_it_is_forgotten(self):
        self.generate(count=2, seconds=1)
        among = ("manifest", "removed", "told")

        self.assertEqual(self.events_of("library", "migrate", among=among), ["manifest", "removed"] * 2 + ["told"])
        self.assertEqual(self.events_of("library", "prune", "--keep", "0", "--yes", among=among),
                         ["removed"] * 2 + ["manifest", "told"])


if __name__ == "__main__":
    unittest.main(verbosity=2)
