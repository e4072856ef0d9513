"""The host's verb `recipe`, run as its user would."""
import copy
import hashlib
import json
import os
import pathlib
import resource
import signal
import subprocess
import time
import unittest
import wave

from host import QUILLMERE, HostTest, interrupt, with_lossless

DAMAGED = "This shared file is damaged."
OTHER_VERSION = "This shared track was made by a different version of Quillmere. Ask the sender to use Export Audio."


def fingerprint(identity):
    """The identity's fingerprint, computed independently: for identities without guide audio."""
    parts = [f"v{identity['recipe']}", identity["model"], identity["moodID"], f"blend={identity['blend']['index']}/5",
             f"seed={identity['seed']}", identity["calmPrompt"], identity["energeticPrompt"]]
    if "prompt" in identity:
        parts.append("prompt=" + identity["prompt"])
    return hashlib.sha256("\x1f".join(parts).encode()).digest()[:8].hex()


class RecipeTests(HostTest):
    def setUp(self):
        super().setUp()
        self.other = self.place / "other"

    def piece(self, *arguments, seconds=2, **options):
        done = self.generate("--json", "--seed", 7, *arguments, seconds=seconds, **options)
        return json.loads(done.out.splitlines()[-1])["artifact"]

    def export(self, identity, name="piece.json", *arguments):
        file = self.place / name
        self.run_host("recipe", "export", fingerprint(identity), "--output", file, *arguments)
        return file

    def recipe(self, **changes):
        """A recipe that no engine has rendered, with the parts that are named changed and a fingerprint that fits."""
        identity = {"moodID": "designflow", "blend": {"index": 1}, "calmPrompt": "c", "energeticPrompt": "e", "seed": 7,
                    "model": "sa3_medium_mlx_v2", "recipe": 1}
        identity |= changes.pop("identity", {})
        return {"schema": "quillmere.recipe/2", "name": "Test", "identity": identity,
                "fingerprint": fingerprint(identity), "engineBuild": "tonebed-1", "seconds": 2} | changes

    def write(self, value, name="stranger.json"):
        file = self.place / name
        file.write_bytes(value if isinstance(value, bytes) else json.dumps(value).encode())
        return file

    def custom(self):
        """A user's mood, and its piece."""
        mood = self.run_json("moods", "new", "--name", "Night", "--calm-tag", "genre=ambient", "--calm-bpm", 60,
                             "--energetic-tag", "genre=techno")
        return mood, self.piece(mood=mood["id"])

    def there(self, *arguments, **options):
        """Runs the program as another person, whose files lie elsewhere."""
        return self.run_host(*arguments, "--home", self.other, home=False, **options)

    # Exporting.

    def test_every_part_has_help_with_an_example(self):
        for part in ([], ["export"], ["import"], ["show"], ["check"], ["recreate"]):
            if part:
                self.assert_help("recipe", *part)
        self.run_host("recipe", expect=2)

    def test_mistyped_verbs_get_a_suggestion(self):
        for words, meant in ((["recpie", "show"], "recipe"), (["recipe", "exprot", "x"], "export"),
                             (["moods", "edti", "x"], "edit")):
            self.assertIn(f'Did you mean "{meant}"?', self.run_host(*words, expect=2).err)

    def test_export_writes_what_is_known_of_the_piece(self):
        piece = self.piece()
        file = self.export(piece["identity"])

        recipe = json.loads(file.read_text())
        audio = pathlib.Path(piece["url"].removeprefix("file://"))
        self.assertEqual(recipe["schema"], "quillmere.recipe/2")
        self.assertEqual(recipe["name"], "Design Flow")
        self.assertEqual(recipe["identity"], piece["identity"])
        self.assertEqual(recipe["fingerprint"], fingerprint(piece["identity"]))
        self.assertEqual(recipe["audioSHA256"], hashlib.sha256(audio.read_bytes()).hexdigest())
        for key in ("seconds", "seamDB", "engineBuild", "origin"):
            self.assertEqual(recipe.get(key), piece.get(key))
        text = file.read_text()
        self.assertEqual(list(recipe), sorted(recipe))
        self.assertTrue(text.startswith('{\n  "audioSHA256" : "'))
        self.assertEqual(self.run_host("recipe", "export", fingerprint(piece["identity"])).out, text + "\n")

    def test_export_never_writes_over_a_file_unasked(self):
        piece = self.piece()
        file = self.export(piece["identity"])
        words = ["recipe", "export", fingerprint(piece["identity"]), "--name", "New", "--output"]
        before = file.read_bytes()

        self.assertIn("--force", self.run_host(*words, file, expect=1).err)
        self.assertEqual(file.read_bytes(), before)
        named = f"{file.parent}/./{file.name}"
        self.assertEqual(self.run_json(*words, named, "--force")["file"], str(file))
        self.assertEqual(json.loads(file.read_text())["name"], "New")

        for place in (self.place, self.place / "missing" / "r.json", "/dev/null"):
            self.run_host(*words, place, "--force", expect=1)
        link = self.place / "link.json"
        link.symlink_to(file)
        self.run_host(*words, link, "--force", expect=1)
        self.assertTrue(link.is_symlink())
        self.assertEqual([p for p in self.place.iterdir() if p.name.startswith(".")], [])

    def test_the_audios_digest_is_written_only_while_the_file_is_the_engines(self):
        piece = self.piece()
        audio = pathlib.Path(piece["url"].removeprefix("file://"))
        whole = audio.read_bytes()

        audio.write_bytes(whole[:-4])
        self.assertNotIn("audioSHA256", json.loads(self.export(piece["identity"], "short.json").read_text()))
        audio.write_bytes(whole[:-4] + bytes(byte ^ 1 for byte in whole[-4:]))
        self.assertNotIn("audioSHA256", json.loads(self.export(piece["identity"], "changed.json").read_text()))
        with wave.open(str(audio), "wb") as other:
            other.setparams((2, 2, 44100, 0, "NONE", ""))
            other.writeframes(whole[44:])
        self.assertNotIn("audioSHA256", json.loads(self.export(piece["identity"], "rate.json").read_text()))

    def test_the_audios_digest_is_not_written_while_the_digests_cannot_be_read(self):
        piece = self.piece()
        (self.loops / "digests.json").write_text("damaged")

        file = self.place / "piece.json"
        done = self.run_host("recipe", "export", fingerprint(piece["identity"]), "--output", file)

        self.assertNotIn("audioSHA256", json.loads(file.read_text()))
        self.assertIn("digests.json", done.err)

    def test_the_beginning_of_a_fingerprint_names_the_piece(self):
        known = fingerprint(self.piece()["identity"])
        self.assertEqual(self.run_json("recipe", "export", known[:6])["fingerprint"], known)
        self.assertEqual(self.run_json("vault", "add", known[:6])["fingerprint"], known)

    def test_looking_at_a_piece_neither_locks_nor_changes_the_library(self):
        piece = self.piece()
        known = fingerprint(piece["identity"])
        file = self.export(piece["identity"])
        (self.loops / ".lock").unlink()
        (self.loops / ".quillmere-0.tmp").write_bytes(b"half")
        before = sorted(path.name for path in self.loops.iterdir())

        self.run_host("recipe", "export", known)
        self.run_host("recipe", "check", file)
        self.run_host("vault", "add", known)

        self.assertEqual(sorted(path.name for path in self.loops.iterdir()), before)

    def test_a_mistyped_fingerprint_gets_a_suggestion(self):
        known = fingerprint(self.piece()["identity"])
        done = self.run_host("recipe", "export", known[:-1] + ("0" if known[-1] != "0" else "1"), expect=2)
        self.assertIn(f'Did you mean "{known}"?', done.err)

    def test_a_piece_whose_mood_was_changed_is_not_shared(self):
        mood, piece = self.custom()
        self.run_host("moods", "edit", mood["id"], "--calm-bpm", 61)
        done = self.run_host("recipe", "export", fingerprint(piece["identity"]), expect=1)
        self.assertIn("was changed or deleted", done.err)
        self.run_host("moods", "delete", mood["id"], "--yes")
        self.run_host("recipe", "export", fingerprint(piece["identity"]), expect=1)

    def test_a_recording_is_never_shared(self):
        piece = self.piece()
        manifest = self.loops / "manifest.json"
        entries = json.loads(manifest.read_text())
        guide = {"format": "sa3.latents/1", "assetID": "a" * 64, "storageID": "my-x", "model": "medium",
                 "sampleCount": 44100, "latentCount": 11, "sourceName": "me.wav", "sourceOffset": 0, "strength": 0.5}
        entries[0]["identity"]["audio"] = {"guide": guide, "offset": 0, "kind": "recording"}
        manifest.write_text(json.dumps(entries))
        listed = self.run_host("recipe", "export", fingerprint(piece["identity"]), expect=2).err
        known = listed.split('Did you mean "')[1][:16] if "Did you mean" in listed else None
        if known is None:  # not close to the old one: ask the playlist which piece there is
            file = self.place / "p.wav"
            known = self.run_json("play", "--mood", "designflow", "--minutes", 0.01, "--output",
                                  file)["pieces"][0]["fingerprint"]
        done = self.run_host("recipe", "export", known, expect=1)
        self.assertIn("This track uses a private sound source. Use Export Audio instead.", done.err)

    # Reading.

    def test_show_tells_a_recipe_and_each_of_a_bundle(self):
        recipe = self.recipe(name="One")
        single = self.write(recipe)
        self.assertEqual(self.run_json("recipe", "show", single), {"recipes": [recipe], "rejected": []})
        self.assertIn("One", self.run_host("recipe", "show", single).out)

        bad = self.recipe(name="Bad", fingerprint="0" * 16)
        bundle = self.write({"schema": "quillmere.recipes/1", "recipes": [recipe, bad]})
        done = self.run_json("recipe", "show", bundle, expect=1)
        self.assertEqual(done["recipes"], [recipe])
        self.assertEqual(done["rejected"][0]["error"], {"case": "fingerprintMismatch", "message": DAMAGED})
        self.assertIn(DAMAGED, self.run_host("recipe", "show", bundle, expect=1).err)

    def test_import_saves_single_recipes_and_bundles_in_the_vault(self):
        one, two = self.recipe(), self.recipe(identity={"seed": 8})
        bad = self.recipe(identity={"seed": 9}, fingerprint="0" * 16)
        single = self.write(one, "one.json")
        bundle = self.write({"schema": "quillmere.recipes/1", "recipes": [one, two, two, bad]}, "many.json")

        self.assertEqual(self.run_host("recipe", "import", single).out, "1 added\n")
        self.assertEqual(self.run_host("recipe", "import", single).out, "0 added · 1 already saved\n")
        done = self.run_host("recipe", "import", bundle, expect=1)
        self.assertEqual(done.out, "1 added · 2 already saved · 1 unusable\n")
        self.assertIn(DAMAGED, done.err)
        self.assertEqual(self.run_json("vault", "list"), [one, two])
        again = self.run_json("recipe", "import", bundle, expect=1)
        self.assertEqual((again["added"], len(again["duplicates"]), len(again["rejected"])), ([], 3, 1))

    def test_a_vault_that_cannot_be_written_is_said_to_be_so(self):
        (self.home / "saved.json").mkdir(parents=True)
        done = self.run_host("recipe", "import", self.write(self.recipe()), expect=5)
        self.assertIn("The vault could not be saved", done.err)

    def test_check_says_in_the_users_words_why_not(self):
        self.run_host("recipe", "check", self.write(self.recipe()))
        answers = ((self.recipe(engineBuild="other-1"), OTHER_VERSION),
                   (self.recipe(identity={"recipe": 2}), OTHER_VERSION),
                   (self.recipe(identity={"model": "sa3_large_mlx_v2"}),
                    "This Mac can’t recreate this shared track. Ask the sender to use Export Audio."),
                   ({k: v for k, v in self.recipe().items() if k != "engineBuild"},
                    "This older shared track can play from your library, but can’t be recreated. "
                    "Ask the sender to use Export Audio."))
        for recipe, message in answers:
            file = self.write(recipe)
            self.assertEqual(self.run_host("recipe", "check", file, expect=1).err, f"quillmere: {message}\n")
            self.assertEqual(self.run_host("recipe", "recreate", file, expect=1).err, f"quillmere: {message}\n")
            self.assertEqual(self.run_json("recipe", "check", file, expect=1)[0]["error"]["message"], message)
        bundle = self.write({"schema": "quillmere.recipes/1", "recipes": [answers[0][0], self.recipe()]})
        checked = self.run_json("recipe", "check", bundle, expect=1)
        self.assertEqual([each["canRecreate"] for each in checked], [False, True])
        self.assertEqual(self.audio(), [])

    def test_check_works_while_another_process_holds_the_library(self):
        engine = self.script("engine", "#!/bin/sh\nread line\necho 'sample 1/2'\nread end\n")
        holder = self.start("generate", "--mood", "designflow", "--engine", engine)
        self.addCleanup(holder.communicate)
        self.addCleanup(holder.terminate)
        holder.stderr.readline()

        file = self.write(self.recipe())
        self.run_host("recipe", "check", file)
        self.run_host("recipe", "recreate", file, expect=4)

    # Recreating.

    def test_another_installation_recreates_the_same_audio(self):
        piece = self.piece(seconds=3)
        file = self.export(piece["identity"])
        here = self.run_host("digest", self.audio()[0], home=False).out.split()[0]

        done = self.there("recipe", "recreate", file, "--json")

        made = json.loads(done.out)
        self.assertEqual((made["isSame"], made["isNew"], made["digest"], made["seconds"]), (True, True, here, 3))
        self.assertEqual(pathlib.Path(made["file"]).read_bytes(), self.audio()[0].read_bytes())
        self.assertEqual(len(self.assert_complete(self.other / "Loops")), 1)
        proof = json.loads(self.there("library", "verify", "--json").out)
        self.assertEqual((proof["isSound"], proof["proved"], proof["unproved"]), (True, 1, 0))
        again = self.there("recipe", "recreate", file, "--digest", here.upper())
        self.assertIn("already in the library", again.out)
        self.assertIn("The audio is the same", again.out)

    def test_a_recipe_in_the_vault_is_recreated_by_its_fingerprint(self):
        piece = self.piece()
        file = self.export(piece["identity"])
        self.there("recipe", "import", file)
        self.assertIn("The audio is the same", self.there("recipe", "recreate", fingerprint(piece["identity"])).out)
        wrong = fingerprint(piece["identity"])[:-1] + "z"
        self.there("recipe", "recreate", wrong, expect=1)  # no such file
        done = self.there("recipe", "recreate", "0" * 16, expect=2)
        self.assertIn("no recipe", done.err)

    def test_other_audio_is_a_failure_and_the_piece_is_filed_all_the_same(self):
        file = self.write(self.recipe(audioSHA256="0" * 64))
        done = self.run_host("recipe", "recreate", file, expect=1)
        self.assertIn("The audio is not the same", done.err)
        self.assertEqual(len(self.assert_complete()), 1)
        made = self.run_json("recipe", "recreate", file, "--digest", "0" * 64, expect=1)
        self.assertFalse(made["isSame"])

    def test_an_interrupt_ends_the_question_for_the_engines_build(self):
        asked = self.place / "asked"
        engine = self.script("engine", f"#!/bin/sh\necho $$ > {asked}.part\nmv {asked}.part {asked}\nexec sleep 60\n")
        began = time.monotonic()
        process = self.start("recipe", "recreate", self.write(self.recipe()), "--engine", engine)
        while not asked.exists() and process.poll() is None:
            pass
        interrupt(process)
        process.communicate(timeout=60)
        self.assertEqual(process.returncode, -signal.SIGINT)  # 130 in a shell
        while pathlib.Path("/proc", asked.read_text().strip()).exists():
            self.assertLess(time.monotonic() - began, 8, "the engine is asked for ten seconds")

    def test_without_a_digest_nothing_is_claimed(self):
        made = self.run_json("recipe", "recreate", self.write(self.recipe()))
        self.assertNotIn("isSame", made)
        self.assertIn("does not say", self.run_host("recipe", "recreate", self.write(self.recipe())).out)

    @with_lossless
    def test_a_copy_stored_without_loss_is_still_known_as_the_same(self):
        piece = self.piece()
        file = self.export(piece["identity"])
        audio = self.audio()[0]
        copy_ = audio.with_suffix(".m4a")
        subprocess.run(["ffmpeg", "-v", "error", "-i", audio, "-c:a", "alac", copy_], check=True, timeout=60)
        audio.unlink()
        manifest = self.loops / "manifest.json"
        manifest.write_text(manifest.read_text().replace(".wav", ".m4a"))

        self.assertTrue(self.run_json("recipe", "recreate", file)["isSame"])
        self.assertNotIn("audioSHA256", json.loads(self.export(piece["identity"], "again.json").read_text()))

    def test_a_users_mood_travels_with_the_recipe(self):
        mood, piece = self.custom()
        file = self.export(piece["identity"])

        done = self.there("recipe", "recreate", file)
        self.assertIn("is not among yours", done.err)
        self.assertIn("The audio is the same", done.out)
        self.there("moods", "show", mood["id"], expect=2)
        self.assertNotIn("is not among yours", self.there("recipe", "recreate", file, "--with-mood").err)
        self.assertEqual(json.loads(self.there("moods", "show", mood["id"], "--json").out)["moodSpec"],
                         mood["moodSpec"])
        self.there("play", "--mood", mood["id"], "--minutes", 0.01, "--output", self.place / "p.wav")

    def test_a_mood_of_the_same_id_is_never_replaced(self):
        mood, piece = self.custom()
        file = self.export(piece["identity"])
        self.run_host("moods", "edit", mood["id"], "--calm-bpm", 90)
        before = (self.home / "Moods.json").read_bytes()
        self.assertIn("is another one", self.run_host("recipe", "recreate", file, "--with-mood").err)
        self.assertEqual((self.home / "Moods.json").read_bytes(), before)

    def test_where_the_moods_cannot_be_read_none_is_replaced(self):
        mood, piece = self.custom()
        file = self.export(piece["identity"])
        self.run_host("moods", "edit", mood["id"], "--calm-bpm", 90)
        moods = self.home / "Moods.json"
        before = moods.read_bytes()
        words = ["recipe", "recreate", file, "--with-mood"]

        self.assertIn("is another one", self.run_failing("openat:error=EIO:when=1", [moods], *words).err)
        self.assertEqual(moods.read_bytes(), before)
        done = self.run_failing("openat:error=EIO", [moods], *words, expect=1)
        self.assertIn("cannot be read", done.err)
        self.assertIn("digest ", done.out)
        done = self.run_failing("openat:error=EIO", [moods], *words[:-1])
        self.assertIn("cannot be read", done.err)
        self.assertNotIn("not among yours", done.err)
        done = self.run_failing("openat:error=EIO", [moods], "recipe", "export", fingerprint(piece["identity"]),
                                expect=1)
        self.assertIn("cannot be read", done.err)
        self.assertEqual(moods.read_bytes(), before)

    def test_a_length_that_no_piece_has_is_damage_and_a_longer_one_is_cut(self):
        for seconds in (0, -1, 1e-9, -1e308):
            done = self.run_host("recipe", "recreate", self.write(self.recipe(seconds=seconds)), expect=1)
            self.assertEqual(done.err, f"quillmere: {DAMAGED}\n")
        self.assertEqual(self.audio(), [])
        made = self.run_json("recipe", "recreate", self.write(self.recipe(seconds=1e308)))
        self.assertEqual(made["seconds"], 120)

    # Files from strangers.

    def test_every_refusal_is_the_users_text_and_exit_status_1(self):
        good = self.recipe()
        song = {"guide": {"format": "sa3.latents/1", "assetID": "a" * 64, "storageID": "my-x", "model": "medium",
                          "sampleCount": 44100, "latentCount": 11, "sourceName": "s", "sourceOffset": 0,
                          "strength": 0.5}, "offset": 0, "kind": "song"}
        audio = copy.deepcopy(good)
        audio["identity"]["audio"] = song
        end = {"tags": [{"category": "genre", "value": "ambient"}], "text": ""}
        prompt = "TrackType: Music, VocalType: Instrumental, Genre: ambient."
        mood = {"id": "my-a", "name": "A", "glyph": "wave", "calm": end, "energetic": end}
        own = self.recipe(identity={"moodID": "my-a", "calmPrompt": prompt, "energeticPrompt": prompt,
                                    "prompt": prompt}, moodSpec=mood)
        self.run_host("recipe", "show", self.write(own))
        fast = dict(mood, calm=dict(end, bpm=301))
        refusals = [(self.recipe(schema="quillmere.recipe/3"), OTHER_VERSION),
                    (self.recipe(schema="quillmere.recipes/1"), None),
                    ({"schema": "quillmere.recipes/2", "recipes": []}, OTHER_VERSION),
                    ({"schema": "quillmere.recipe/2", "recipes": []}, OTHER_VERSION),
                    (self.recipe(fingerprint="0" * 16), DAMAGED), (self.recipe(fingerprint=""), DAMAGED),
                    (self.recipe(identity={"blend": {"index": 5}}), DAMAGED),
                    (self.recipe(identity={"blend": {"index": -1}}), DAMAGED),
                    (self.recipe(identity={"seed": -1}), DAMAGED),
                    (self.recipe(identity={"moodID": ""}), DAMAGED),
                    (self.recipe(identity={"moodID": "a b"}), DAMAGED),
                    (self.recipe(identity={"moodID": "../../etc"}), DAMAGED),
                    (self.recipe(identity={"moodID": "/etc/passwd"}), DAMAGED),
                    (self.recipe(identity={"moodID": "nosuch"}), "This mood is not available on this Mac."),
                    (dict(own, schema="quillmere.recipe/1"), "This mood is not available on this Mac."),
                    (dict(own, moodSpec=fast), DAMAGED), (dict(own, moodSpec=dict(mood, id="my-b")), DAMAGED),
                    ({k: v for k, v in own.items() if k != "moodSpec"}, DAMAGED),
                    (audio, "This track uses a private sound source. Use Export Audio instead.")]
        for recipe, message in refusals:
            file = self.write(recipe)
            for verb in ("show", "import", "check", "recreate"):
                with self.subTest(verb=verb, recipe=recipe):
                    done = self.run_host("recipe", verb, file, expect=1)
                    if message:
                        self.assertEqual(done.err, f"quillmere: {message}\n")
                    self.assertEqual(done.out, "")
        self.assertEqual(self.run_json("vault"), [])
        self.assertEqual(self.audio(), [])

    def test_what_is_no_json_of_ours_names_the_place(self):
        good = self.recipe()
        text = json.dumps(good)
        files = [(b"", ""), (b"{", ""), (b"[]", ""), (b"null", ""), (b'"x"', ""), (b"\xff\xfe{}", ""),
                 (text.encode() + b"x", ""), (text.replace("Test", "\\ud800").encode(), ""), (b"[" * 100000, ""),
                 (b'{"a":' * 100000, ""), (dict(good, name=1), "name"), (dict(good, seconds="2"), "seconds"),
                 (dict(good, seconds=True), "seconds"), (text.replace('"seconds": 2', '"seconds": 1e999').encode(), ""),
                 (text.replace('"seed": 7', '"seed": 1e400').encode(), ""),
                 (dict(good, moodSpec=[]), "moodSpec"), (dict(good, origin={}), "origin.chip"),
                 (dict(good, identity=dict(good["identity"], seed=7.5)), "identity.seed"),
                 (dict(good, identity=dict(good["identity"], seed=2 ** 63)), "identity.seed"),
                 (dict(good, identity=dict(good["identity"], blend=1)), "identity.blend"),
                 ({k: v for k, v in good.items() if k != "identity"}, "identity"),
                 ({"schema": "quillmere.recipes/1", "recipes": [good, {}]}, "recipes[1].schema"),
                 ({"schema": "quillmere.recipes/1", "recipes": {}}, "recipes"),
                 ({"schema": "quillmere.recipes/1"}, "recipes")]
        for content, where in files:
            file = self.write(content)
            for verb in ("show", "import", "check", "recreate"):
                with self.subTest(verb=verb, content=str(content)[:80]):
                    done = self.run_host("recipe", verb, file, expect=1)
                    self.assertIn(where, done.err)
                    self.assertTrue(done.err.startswith("quillmere: "))
                    self.assertEqual(done.out, "")

    def test_only_regular_files_of_bounded_size_are_read(self):
        fifo = self.place / "fifo"
        os.mkfifo(fifo)
        large = self.write(json.dumps(self.recipe()).encode() + b" " * 64 * 1024 * 1024, "large.json")
        for file in (fifo, large, self.place, self.place / "none.json", "/dev/zero"):
            self.run_host("recipe", "show", file, expect=1)
        for size, status in ((16 * 1024 * 1024, 0), (16 * 1024 * 1024 + 1, 1)):
            text = json.dumps(self.recipe()).encode().ljust(size)
            for part in ("show", "check"):
                self.run_host("recipe", part, self.write(text, "large.json"), expect=status)

    @unittest.skipIf("QUILLMERE_IS_SANITIZED" in os.environ, "the sanitizer reserves more than the bound")
    def test_a_large_file_needs_a_bounded_memory(self):
        one = json.dumps(self.recipe(name=""))
        count = (16 * 1024 * 1024 - 100) // (len(one) + 1)
        many = self.write(('{"schema":"quillmere.recipes/1","recipes":[' + ",".join([one] * count) + "]}").encode())
        junk = self.write(('{"recipes":[' + ",".join(["{}"] * 5_000_000) + "]}").encode(), "junk.json")
        for file, status in ((many, 0), (junk, 1)):
            limit = 1 << 30
            done = subprocess.run([QUILLMERE, "recipe", "import", file, "--home", self.home], env=self.environment,
                                  capture_output=True, text=True, timeout=120,
                                  preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_DATA, (limit, limit)))
            self.assertEqual(done.returncode, status, done.stderr)
        self.assertEqual(len(self.run_json("vault")), 1)

    def test_text_from_a_file_cannot_steer_the_terminal(self):
        bad = "\x1b]0;t\x07\u009b31m\u202e\r"
        recipe = self.recipe(name=bad, engineBuild=bad, origin={"chip": bad}, audioSHA256=bad,
                             identity={"calmPrompt": bad, "model": bad})
        file = self.write(recipe)
        broken = self.write({"schema": "quillmere.recipes/1", "recipes": [dict(recipe, fingerprint=bad)]}, "b.json")
        for words, status in ((["show", file], 0), (["show", file, "--json"], 0), (["check", file], 1),
                              (["show", broken], 1), (["show", broken, "--json"], 1), (["check", broken, "--json"], 1),
                              (["import", broken], 1), (["import", file], 0)):
            done = self.run_host("recipe", *words, expect=status)
            for character in "\x1b\x07\u009b\u202e\r":
                self.assertNotIn(character, done.out + done.err)
        self.assertEqual(self.run_json("recipe", "show", file)["recipes"][0]["name"], bad)
        for words in (["vault"], ["vault", "--json"], ["vault", "export"]):
            self.assertNotIn("\x1b", self.run_host(*words).out)

    def test_a_mood_id_too_long_for_a_file_name_is_an_error(self):
        end = {"tags": [{"category": "genre", "value": "ambient"}], "text": ""}
        prompt = "TrackType: Music, VocalType: Instrumental, Genre: ambient."
        long = "my-" + "a" * 300
        mood = {"id": long, "name": "A", "glyph": "wave", "calm": end, "energetic": end}
        file = self.write(self.recipe(identity={"moodID": long, "calmPrompt": prompt, "energeticPrompt": prompt,
                                                "prompt": prompt}, moodSpec=mood))
        self.run_host("recipe", "recreate", file, expect=1)
        self.assertEqual([p.name for p in self.loops.iterdir() if not p.name.startswith(".")], [])


if __name__ == "__main__":
    unittest.main()
