"""Every event that voxdesk --json prints is one of docs/json.schema.json, and docs/json.md tells of those:
json_test.py VOXDESK PROJECT, or json_test.py --write PROJECT to write the table of docs/json.md."""
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile

BEGIN, END = "<!-- events -->\n", "<!-- end of events -->\n"
TYPES = {"integer": int, "number": (int, float), "string": str, "boolean": bool, "null": type(None), "array": list}
# These take what no desk of ours does by itself.
NOT_SEEN = {"audio", "speech-lost", "short-press"}
DESK = {
    "devices": [
        {"model": "Wren", "timeline": [{"at": 3, "key": "0"}, {"at": 3.2, "key": "9"}, {"at": 3.4, "power": 50},
                                       {"at": 6, "unplug": True}]},
        {"model": "Swift", "link": "bluetooth"},
    ],
    "legacy": [{"kind": "usb-mouse", "timeline": [{"at": 2, "press": "F19"}, {"at": 2.2, "release": "F19"},
                                                  {"at": 2.3, "press": "F19"}, {"at": 2.4, "release": "F19"}]},
               {"kind": "voice-keyboard", "timeline": [{"at": 3, "key": 65}, {"at": 3.1, "key": 0}, {"at": 4, "key": 101}]},
               {"kind": "laser-pen", "plugged": False, "timeline": [{"at": 5, "plug": True}, {"at": 7, "press": "F9"}]}],
    "sound": {"microphones": [{"name": "Microphone (VoxMouse Tern)"}], "endpoints": [{"name": "Microphone (VoxMouse Tern)", "muted": True}],
              "speaker": {"plays": "sentence.wav"}},
}


def table(schema: dict) -> str:
    lines = ["| event | field | type | what it is |\n", "| --- | --- | --- | --- |\n"]
    for event in schema["oneOf"]:
        lines.append(f"| `{event['properties']['event']['const']}` | | | {event['description']} |\n")
        for name, field in event["properties"].items():
            if name in ("time", "event"):
                continue
            types = field["type"] if isinstance(field["type"], list) else [field["type"]]
            words = field["description"] + (": " + ", ".join(f'"{v}"' for v in field["enum"]) if "enum" in field else "")
            some = "" if name in event["required"] else " (not always)"
            lines.append(f"| | `{name}` | {' or '.join(types)}{some} | {words} |\n")
    return "".join(lines)


def problem(event: dict, schema: dict) -> str:
    fields = schema["properties"]
    for name, value in event.items():
        if name not in fields:
            return f"{name} is not known"
        if "const" in fields[name]:
            continue
        types = fields[name]["type"] if isinstance(fields[name]["type"], list) else [fields[name]["type"]]
        if not any(isinstance(value, TYPES[t]) and (t == "boolean") == isinstance(value, bool) for t in types):
            return f"{name} is {value!r}"
        if value not in fields[name].get("enum", [value]):
            return f"{name} is {value!r}"
    return "".join(f"{name} is missing" for name in schema["required"] if name not in event)


def main() -> int:
    project = pathlib.Path(sys.argv[2]).resolve()
    schema = json.loads((project / "docs/json.schema.json").read_text())
    page = (project / "docs/json.md").read_text()
    before, rest = page.split(BEGIN)
    old, after = rest.split(END)
    if sys.argv[1] == "--write":
        (project / "docs/json.md").write_text(before + BEGIN + table(schema) + END + after)
        return 0
    wrong = [] if old == table(schema) else ["docs/json.md is not what docs/json.schema.json says: use --write"]
    known = {event["properties"]["event"]["const"]: event for event in schema["oneOf"]}

    with tempfile.TemporaryDirectory(dir=os.environ.get("TMPDIR")) as folder:
        speech = str(project / "samples/sentence.wav")
        DESK["sound"]["speaker"]["plays"] = speech
        desk, image, take, capture = (os.path.join(folder, name) for name in ("desk.json", "a.bin", "a.wav", "a.pcapng"))
        pathlib.Path(desk).write_text(json.dumps(DESK))
        pathlib.Path(image).write_bytes(bytes(range(256)) * 8)
        on_desk = ["--desk", desk]
        seen = set()
        for arguments in (
                ["--out", take, "--picture", take + ".png"], [*on_desk, "--capture", capture, "monitor", "--raw", "--seconds", "8"],
                ["--desk", capture, "monitor", "--seconds", "8"], ["devices", "--verbose"], [*on_desk, "state"],
                [*on_desk, "dpi", "800"], [*on_desk, "url", "vox.example/a"], [*on_desk, "mkey", "list", "--device", "Swift"],
                [*on_desk, "mkey", "set", "2", "--device", "Swift"], ["update", "--yes", "--first", image], ["update", "--rehearse", "--first", image],
                ["record", "--speech", speech, "--out", take], ["send", "05fff1fec00500ef", "--wait", "100"], [*on_desk, "sound"],
                [*on_desk, "speaker", "--out", take, "--seconds", "1"], ["mic", "--out", take, "--seconds", "1"],
                [*on_desk, "legacy", "--seconds", "12"], ["legacy", "--seconds", "20"], [*on_desk, "doctor"], ["conform"]):
            clock = [] if "--rehearse" in arguments else ["--virtual-time"]
            ended = subprocess.run([sys.argv[1], *clock, "--json", *arguments], capture_output=True, text=True,
                                   timeout=120)
            if not ended.stdout:
                wrong.append(f"{arguments}: nothing, {ended.stderr}")
            for line in ended.stdout.splitlines():
                event = json.loads(line)
                name = event.get("event")
                seen.add(name)
                what = problem(event, known[name]) if name in known else "not in the schema"
                if what or (event.get("english") and re.search(r"[^\x00-\x7f]", event["english"])):
                    wrong.append(f"{arguments}: {line}: {what or 'not English'}")
        if known.keys() - seen != NOT_SEEN:
            wrong.append(f"not seen: {known.keys() - seen}")

    # Every text of the library has its English.
    words = (project / "tools/voxdesk/English.cpp").read_text()
    for source in (project / "src").rglob("*.cpp"):
        for text in re.findall(r'L"([^"]*[^\x00-\x7f"][^"]*)"', source.read_text()):
            if f'{{"{text}", ' not in words.replace("\n", "").replace("    ", ""):
                wrong.append(f"{source.name}: {text} has no English")
    print("\n".join(wrong[:20]))
    return len(wrong) > 0


if __name__ == "__main__":
    sys.exit(main())
