"""voxdesk conform: a sound device of every model and link keeps every rule, and each fault breaks its own:
conform_test.py VOXDESK."""
import json
import pathlib
import subprocess
import sys
import tempfile
import xml.etree.ElementTree

BLUETOOTH_ONLY = {"Finch", "Robin", "Heron", "Egret"}
MODELS = ["Tern", "Wren", "Finch", "Robin", "Heron", "Egret", "Heron Plus", "Swift"]
# Command, answer, and the rules that this breaks.
FAULTS = [
    ("mouse-state", "silent", {"answers GetMouseState"}),
    ("mouse-state", "garbled", {"sends whole frames of the lengths that are known"}),
    ("mouse-state", "twice", {"answers once"}),
    ("mouse-state", "late 400", set()),
    ("mouse-state", "late 1500", {"answers in time"}),
    ("identify", "silent", {"answers Identify"}),
    ("dongle-state", "silent", set()),  # as without a receiver
    ("dongle-state", "late 1500", {"answers in time"}),
    ("voice-open", "silent", {"answers VoiceOpen"}),
    ("voice-open", "refuse", {"answers VoiceOpen"}),
    ("voice-open", "twice", {"answers once"}),
    ("voice-open", "late 700", set()),
    ("voice-open", "late 1500", {"answers in time"}),
    # It has not heard that it should close.
    ("voice-stop", "silent", {"answers VoiceStop", "sends no speech while its voice channel is closed"}),
    ("voice-stop", "late 700", set()),
    ("heartbeat", "late 1100", {"answers in time"}),
    ("identify", "late 3000", {"answers in time"}),
    ("heartbeat", "twice", {"answers once"}),
    ("set-dpi", "silent", {"answers SetDpi"}),
    ("set-dpi", "refuse", {"answers SetDpi"}),
    ("set-url", "silent", {"answers SetDownloadUrl"}),
    ("set-url", "refuse", {"answers SetDownloadUrl"}),
    ("set-dpi", "garbled", {"sends whole frames of the lengths that are known"}),
]


def main() -> int:
    wrong = []
    with tempfile.TemporaryDirectory() as folder:
        desk, junit = (pathlib.Path(folder, name) for name in ("desk.json", "rules.xml"))

        def run(device: dict) -> tuple[int, dict, list]:
            desk.write_text(json.dumps({"devices": [device]}))
            ended = subprocess.run([sys.argv[1], "--desk", str(desk), "--virtual-time", "--json", "conform", "--yes",
                                    "--url", "example.com/a",
                                    "--junit", str(junit)], capture_output=True, text=True, timeout=120)
            rules = [json.loads(line) for line in ended.stdout.splitlines()]
            return ended.returncode, {r["rule"]: r["outcome"] for r in rules if r["event"] == "rule"}, rules

        def expect(what: str, device: dict, broken: set, least: int) -> None:
            code, rules, events = run(device)
            failed = {rule for rule, outcome in rules.items() if outcome == "failed"}
            passed = sum(outcome == "passed" for outcome in rules.values())
            suite = xml.etree.ElementTree.parse(junit).getroot()
            if (failed != broken or code != (len(broken) > 0) or passed < least or
                    int(suite.get("failures")) != len(broken) or len(suite) != len(rules)):
                wrong.append(f"{what}: exit code {code}, failed {failed}, {passed} passed: {events}")

        for model in MODELS:
            for link in ["bluetooth"] + (["usb"] if model not in BLUETOOTH_ONLY else []):
                expect(f"{model}, {link}", {"model": model, "link": link}, set(), 11)
        for command, answer, broken in FAULTS:
            answer, _, delay = answer.partition(" ")
            fault = {"command": command, "answer": answer, **({"delay_ms": int(delay)} if answer == "late" else {})}
            expect(f"{command} {answer} {delay}", {"model": "Wren", "faults": [fault]}, broken, 6)
        # A DPI that the library cannot set stays what it is.
        _, rules, events = run({"model": "Wren", "dpi": 40000})
        if rules.get("answers SetDpi") != "skipped":
            wrong.append(f"DPI 40000: {events}")
        # An M key that does not tell its list, and one that is not changed.
        for command, answer, rule in (("mkey-list", "silent", "GetMKeyTypeList"), ("mkey-set", "silent", "SetMKeyType"),
                                      ("mkey-set", "refuse", "SetMKeyType"), ("mkey-set", "twice", "")):
            expect(f"{command} {answer}", {"model": "Swift", "link": "usb", "faults": [{"command": command, "answer": answer}]},
                   {f"answers {rule}" if rule else "answers once"}, 10)
        # Who sleeps need not answer, whenever it falls asleep; who presses a key is awake.
        for at in range(10, 140, 5):
            for wakes in ([], [{"at": at / 10 + 6.3, "sleep": False}]):
                timeline = [{"at": at / 10, "sleep": True}, *wakes]
                expect(f"sleep {timeline}", {"model": "Wren", "timeline": timeline}, set(), 3)
        nap = [{"at": 3.2, "sleep": True}, {"at": 8.2, "sleep": False}]
        for pressed, outcome in (([], "passed"), ([{"at": 5.5, "key": "0"}], "failed")):
            _, rules, events = run({"model": "Wren", "timeline": nap + pressed})
            if rules["is silent while it sleeps"] != outcome:
                wrong.append(f"nap, {pressed}: {events}")
        # One that goes is not judged.
        for back in ([], [{"at": 7.25, "plug": True}]):
            code, rules, _ = run({"model": "Wren", "timeline": [{"at": 5.25, "unplug": True}, *back]})
            if code != 1 or rules:
                wrong.append(f"gone, {back}: exit code {code}, {rules}")
        # It is called what it calls itself, however late.
        run({"model": "Swift", "link": "usb", "faults": [{"command": "identify", "answer": "late", "delay_ms": 3000}]})
        if "Swift" not in xml.etree.ElementTree.parse(junit).getroot().get("name"):
            wrong.append("a Swift that is late to say so has another name")
    print("\n".join(line[:600] for line in wrong))
    return len(wrong) > 0


if __name__ == "__main__":
    sys.exit(main())
