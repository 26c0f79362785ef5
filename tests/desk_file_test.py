"""What desk files say, and what is refused in them, by voxdesk and by docs/desk-file.schema.json alike:
desk_file_test.py VOXDESK PROJECT."""
import json
import pathlib
import subprocess
import sys
import tempfile

import jsonschema


def fault(model="Wren", link="usb", **entries):
    return {"devices": [{"model": model, "link": link, "faults": [entries]}]}


def wren(**entries):
    return {"devices": [{"model": "Wren", **entries}]}


SOUND = {"microphones": [{"name": "A"}, {"name": "VoxMouse Tern"}], "mixers": [{"name": "VoxMouse Tern"},
                                                                              {"name": "B", "microphone": False}]}
# What a desk is, where it is refused, and what was expected there; nothing when it is a good one. Last: what no schema
# can say, that entries depend on each other.
CASES = [
    (wren(serial="WR0123456789ABCDEF", address=[1, 2, 3, 4, 5, 6], timeline=[{"at": 1, "key": "0"}]), None),
    (fault(command="ota-data", answer="refuse", image="second", message=3), None),
    (fault("Tern", command="ota-prepare", answer="silent"), None),
    (fault(command="voice-open", answer="late", delay_ms=500), None),
    ({"$schema": "desk-file.schema.json", "sound": SOUND}, None),
    ({"legacy": [{"kind": "hid-mouse", "timeline": [{"at": 1, "key": 33}]}]}, None),
    (wren(serial="!" * 18), '.devices[0].serial: expected 18 letters and digits, found "!!!'),
    (wren(serial="WR0123456789ABCDE"), ".devices[0].serial: expected 18 letters and digits"),
    (wren(speech=""), '.devices[0].speech: expected the name of a WAV file, found ""'),
    (wren(link="infrared"), '.devices[0].link: expected "usb" or "bluetooth" for a Wren'),
    (fault(command="voice-open", answer="silent", delay_ms=5), '.faults[0]: no entry is called "delay_ms"'),
    (fault(command="voice-open", answer="late"), '.faults[0]: "delay_ms" is missing'),
    (fault(command="voice-open", answer="refuse", image="first"), '.faults[0]: no entry is called "image"'),
    (fault(command="ota-open", answer="refuse", message=1), '.faults[0]: no entry is called "message"'),
    (fault(command="ota-open", answer="late"), ".faults[0].answer: expected one of: silent, refuse, unplug"),
    (fault(open="refused", writes="fail"), '.faults[0]: no entry is called "writes"'),
    (fault(writes="fail", answer="silent"), '.faults[0]: no entry is called "answer"'),
    ({"sound": {"mixers": [{"name": "B", "microphone": 1}]}}, ".mixers[0].microphone: expected true or false"),
    ({"legacy": [{"kind": "laser-pen", "timeline": [{"at": 1, "key": 33}]}]}, '.key: expected no "key" for this kind'),
    ({}, ': expected "devices", "sound" or "legacy", found {}'),
    (fault(command="ota-prepare", answer="silent"), '.command: expected "ota-prepare" with a Tern only'),
    (fault(link="bluetooth", command="ota-open", answer="silent", image="first"), '.image: expected no "image" with Bluetooth'),
    ({"devices": [{"model": "Finch", "faults": [{"command": "ota-open", "answer": "silent", "image": "first"}]}]}, "Bluetooth"),
    ({"devices": [{"model": "Finch", "link": "usb"}]}, '.link: expected "bluetooth" for a Finch, found "usb"'),
    (wren(battery=50.0, dpi=8e2), None),
    (wren(battery=50.5), ".battery: expected a whole number from 0 to 255, found 50.5"),
    (wren(timeline=[{"at": 1, "key": "8"}]), ".key: expected one of the keys that a model has: 0, 1, 2, 3, 4, 5, 9, @, C, I"),
    (wren(timeline=[{"at": 3, "plug": True}, {"at": 2, "unplug": True}]), None),
    (wren(timeline=[{"at": 2, "plug": True}]), '.timeline[0]: expected "unplug" before it, as it is plugged in then'),
    (wren(timeline=[{"at": 3, "unplug": True}, {"at": 2, "unplug": True}]), '.timeline[0]: expected "plug" before it'),
    ({"legacy": [{"kind": "laser-pen", "plugged": False, "timeline": [{"at": 2, "unplug": True}]}]}, '.timeline[0]: expected "plug"'),
    (wren(faults=[{"command": "set-dpi", "answer": "silent"}, {"command": "set-dpi", "answer": "refuse"}]),
     ".faults[1]: expected no second fault of set-dpi"),
    (wren(faults=[{"command": "ota-open", "answer": "refuse"}, {"command": "ota-data", "answer": "silent", "message": 1}]),
     ".faults[1]: expected no second fault of the first image"),
]
BEYOND_A_SCHEMA = 5
# Files that are no JSON of ours: the text, and the sentence.
FILES = [
    ('{"devices": [{"model": "Wren", "dpi": 800, "dpi": 900}]}', ': the entry "dpi" stands twice in one place'),
    ('{"devices": [{"model": "Wren"}], "devices": []}', ': the entry "devices" stands twice in one place'),
    ('{"devices": [{"model": "Wren", "dpi": 1e400}]}', ": a number is too large: '1e400'"),
    ('{"devices": [', ": parse error at line 1, column 14"),
]


def main() -> int:
    wrong = 0

    def say(desk, sentence):
        nonlocal wrong
        ended = subprocess.run([sys.argv[1], "--virtual-time", "--desk", str(desk), "--json", "sound"],
                               capture_output=True, text=True, timeout=60)
        good = ended.returncode == 0 if sentence is None else (
            ended.returncode == 1 and ended.stderr.startswith(f"voxdesk: {desk}") and sentence in ended.stderr)
        if not good:
            wrong += 1
            print(f"{desk.read_text() if desk.is_file() else desk}: exit code {ended.returncode}, {ended.stderr}")
        return ended.stdout

    schema = json.loads(pathlib.Path(sys.argv[2], "docs", "desk-file.schema.json").read_text())
    valid = jsonschema.Draft202012Validator(schema).is_valid
    with tempfile.TemporaryDirectory() as folder:
        file = pathlib.Path(folder, "desk.json")
        for i, (desk, sentence) in enumerate(CASES):
            file.write_text(json.dumps(desk))
            say(file, sentence)
            if valid(desk) != (sentence is None or i >= len(CASES) - BEYOND_A_SCHEMA):
                wrong += 1
                print(f"the schema thinks otherwise of {desk}")
        for text, sentence in FILES:
            file.write_text(text)
            say(file, sentence)
        say(pathlib.Path(folder), ": not a file of bytes; expected a desk file, or a capture")
    return wrong


sys.exit(main())
