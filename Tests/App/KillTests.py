"""Kills `quillmere generate` without warning, again and again, and looks at what is left.

The number of kills is `QUILLMERE_KILLS` (20 unless set). The waits before them follow from a fixed seed; where the
program is by then is the scheduler's."""
import os
import random
import time
import unittest

from host import HostTest, processes_below


class KillTests(HostTest):
    def test_a_kill_at_any_moment_leaves_a_library_of_complete_pieces(self):
        dice = random.Random(20261121)
        bystander = self.loops / "Render-of-somebody-else"
        bystander.mkdir(parents=True)
        (bystander / "notes.txt").write_text("not ours")
        (self.loops / "mine.wav").write_bytes(b"not ours either")

        kept = set()
        for kill in range(int(os.environ.get("QUILLMERE_KILLS", "20"))):
            process = self.start("generate", "--mood", "designflow", "--count", "1000", "--seconds", "3", "--json",
                                 "--seed", str(kill * 1000))
            # Some kills come while the program starts, the others at some moment of a later piece.
            for _ in range(dice.randint(0, 2)):
                self.await_finished_piece(process)
            time.sleep(dice.uniform(0.0, 0.4))
            process.kill()
            process.communicate()

            # The engine's supervisor notices by itself; its end is the end of its lock on the working folder.
            self.wait_until_nobody_works()
            entries = {entry["identity"]["seed"] for entry in self.assert_complete()}
            self.assertLessEqual(kept, entries, "a piece that was there before is gone")
            kept = entries
        self.assertGreater(len(kept), 0, "no piece was ever finished: the kills came too early to show anything")

        self.run_host("generate", "--mood", "designflow", "--seconds", "1", "--seed", "999999")
        left = sorted(p.name for p in self.loops.iterdir())
        self.assertEqual([name for name in left if name.startswith("Render-")], ["Render-of-somebody-else"])
        self.assertEqual((bystander / "notes.txt").read_text(), "not ours")
        self.assertEqual((self.loops / "mine.wav").read_bytes(), b"not ours either")
        self.assertEqual([name for name in left if name.startswith(".") and name != ".lock"], [])

    def await_finished_piece(self, process):
        for line in process.stdout:
            if '"event":"finished"' in line:
                return
        _, error = process.communicate()
        self.fail(f"the program ended by itself, with status {process.returncode}:\n{error}")

    def wait_until_nobody_works(self):
        deadline = time.monotonic() + 30
        while processes_below(self.place):
            self.assertLess(time.monotonic(), deadline, "an orphan engine is still running")
            time.sleep(0.01)


if __name__ == "__main__":
    unittest.main(verbosity=2)
