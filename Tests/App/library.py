"""A loop library that a test puts together by itself: audio files, manifest, and the fingerprints that name them."""
import fcntl
import hashlib
import json
import math
import os
import struct
import wave

from host import HostTest

CALM = "sustained warm pads, gentle motion, smooth, instrumental"


def identity(mood="designflow", seed=1, blend=2, model="sa3_medium_mlx_v2", **more):
    return {"moodID": mood, "blend": {"index": blend}, "calmPrompt": "calm pads", "energeticPrompt": "driving pulse",
            "seed": seed, "model": model, "recipe": 1, **more}


def fingerprint(of):
    parts = [f"v{of['recipe']}", of["model"], of["moodID"], f"blend={of['blend']['index']}/5", f"seed={of['seed']}",
             of["calmPrompt"], of["energeticPrompt"]]
    return hashlib.sha256("\x1f".join(parts).encode()).hexdigest()[:16]


def write_wav(path, seconds=1.0, tone=440.0, level=0.25, rate=48000, channels=2):
    frames = round(seconds * rate)
    samples = bytearray()
    for frame in range(frames):
        value = round(32767 * level * math.sin(2 * math.pi * tone * frame / rate))
        samples += struct.pack("<h", value) * channels
    with wave.open(str(path), "wb") as audio:
        audio.setnchannels(channels)
        audio.setsampwidth(2)
        audio.setframerate(rate)
        audio.writeframes(bytes(samples))


def pcm_digest(path):
    with wave.open(str(path)) as audio:
        return hashlib.sha256(audio.readframes(audio.getnframes())).hexdigest()


def holding(folder, lock=".lock"):
    """A descriptor that holds the folder's lock as another program would, and names its holder."""
    folder.mkdir(parents=True, exist_ok=True)
    descriptor = os.open(folder / lock, os.O_RDWR | os.O_CREAT | os.O_CLOEXEC, 0o644)
    os.write(descriptor, b"a patient holder, process 4711\n")
    # struct flock on 64-bit Linux; the lock belongs to the open file.
    wanted = struct.pack("hhqqi4x", fcntl.F_WRLCK, os.SEEK_SET, 0, 0, 0)
    fcntl.fcntl(descriptor, 37, wanted)  # F_OFD_SETLK
    return descriptor


class LibraryTest(HostTest):
    def setUp(self):
        super().setUp()
        self.loops.mkdir(parents=True)
        self.entries = []

    def put(self, seed, mood="designflow", seconds=120, age=0, audio=0.1, name=None, write=True, **more):
        """A piece in the manifest, said to last `seconds` and `age` seconds old; its file holds `audio` seconds."""
        of = identity(mood, seed, **more)
        mark = fingerprint(of)
        file = self.loops / (name or f"{mood}_b{of['blend']['index']}_{mark}.wav")
        if audio is not None:
            write_wav(file, audio)
            moment = 1_700_000_000 - age
            os.utime(file, (moment, moment))
        self.entries.append({"identity": of, "url": f"file://{file}", "seconds": seconds})
        if write:
            self.write_manifest()
        return mark

    def write_manifest(self):
        (self.loops / "manifest.json").write_text(json.dumps(self.entries), encoding="utf-8")

    def library_as_a_bound_user(self, *arguments, **options):
        """Runs the verb as somebody whom the rights of files bind. They do not bind who runs everything; such a one
        gives the home away before."""
        user = {}
        if os.geteuid() == 0:
            user = {"user": 65534, "group": 65534, "extra_groups": []}
            self.place.chmod(0o755)
            for path in (self.home, *self.home.rglob("*")):
                os.chown(path, 65534, 65534, follow_symlinks=False)
        return self.library(*arguments, environment={"TMPDIR": str(self.home)}, **user, **options)

    def put_behind_a_closed_folder(self, seed):
        """A piece of which nobody can tell whether it is one of the library's other files."""
        closed = self.place / "closed"
        closed.mkdir(mode=0)
        self.addCleanup(closed.chmod, 0o755)
        (self.loops / "link").symlink_to(closed)
        return self.put(seed, audio=None, name="link/x.wav")

    def file_of(self, mark):
        return next(file for file in self.loops.iterdir() if mark in file.name)

    def marks(self):
        """The fingerprints that the manifest lists."""
        return sorted(fingerprint(entry["identity"]) for entry in self.manifest())

    def snapshot(self, *ignored):
        """All that is in the home: every file with its content and time."""
        return {str(path.relative_to(self.place)): (path.read_bytes(), path.stat().st_mtime_ns)
                for path in sorted(self.place.rglob("*")) if path.is_file() and path.name not in ignored}

    def library(self, *arguments, **options):
        return self.run_host("library", *arguments, **options)

    def library_json(self, *arguments, **options):
        return json.loads(self.library(*arguments, "--json", **options).out)
