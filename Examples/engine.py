#!/usr/bin/env python3
"""A complete engine: a soft chord that ends where it began. See Documentation/engines.md."""
import array, json, math, sys, time, wave

request = json.loads(sys.stdin.readline())
if request["request"] == "build":
    print("result", json.dumps({"engineBuild": "chord-1"}))
    sys.exit()
identity, rate, frames = request["identity"], request["sampleRate"], request["frames"]
if "audio" in identity:
    sys.exit("This engine cannot use guide audio.")

root = 110 * 2 ** (identity["seed"] % 12 / 12)
cycles = [round(root * step * frames / rate) for step in (1, 1.25, 1.5)]  # whole ones: the piece is a loop
with open(request["file"], "wb") as file, wave.open(file) as audio:
    audio.setparams((request["channels"], 2, rate, 0, "NONE", ""))
    for first in range(0, frames, rate):
        started, last = time.monotonic(), min(first + rate, frames)
        samples = array.array("h")
        for frame in range(first, last):
            value = sum(math.sin(2 * math.pi * count * (frame / frames)) for count in cycles)
            samples.extend([round(5000 * value)] * 2)
        audio.writeframes(samples.tobytes())  # brings the file's header up to date
        file.flush()
        print(f"sample {first // rate + 1}/{-(-frames // rate)}")
        print("audio", json.dumps({"file": request["file"], "seconds": last / rate}), flush=True)
        time.sleep((time.monotonic() - started) * (1 / request["dutyCycle"] - 1))
print("result", json.dumps({"file": request["file"], "seconds": frames / rate}))
