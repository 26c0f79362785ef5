"""voxdesk doctor on a desk for each fault: doctor_test.py VOXDESK. What it finds there, and nothing else."""
import json
import pathlib
import subprocess
import sys
import tempfile

SOUND = {"microphones": [{"name": "Microphone (VoxMouse Tern)"}], "endpoints": [{"name": "Microphone (VoxMouse Tern)"}]}


def wren(**more):
    return {"devices": [{"model": "Wren", **more}], "sound": SOUND}


def fault(command, answer, **more):
    return wren(faults=[{"command": command, "answer": answer, **more}])


# The desk, and the findings: about whom, and how each sentence begins.
CASES = {
    "well": (wren(), []),
    "nothing is plugged in": ({"devices": [], "sound": SOUND}, [("devices", "no HID device of ours is plugged in")]),
    "cannot be opened": (wren(faults=[{"open": "refused"}]), [("VoxMouse Wren", "access is denied")]),
    "never answers": (fault("heartbeat", "silent"), [("#1 VoxMouse Wren", "it has answered none of ")]),
    "falls asleep": (wren(timeline=[{"at": 4, "sleep": True}]), [("#1 VoxMouse Wren", "it does not answer any more")]),
    "sleeps for a while": (wren(timeline=[{"at": 4, "sleep": True}, {"at": 6.5, "sleep": False}]),
                           [("#1 VoxMouse Wren", "3 heartbeats unanswered")]),
    "another's identifier": ({"devices": [{"model": "Swift", "timeline": [{"at": 4, "sleep": True}]}], "sound": SOUND},
                             [("#1 VoxMouse Swift", "it does not answer any more")]),
    "late heartbeats": (fault("heartbeat", "late", delay_ms=2500),
                        [("#1 VoxMouse Wren", "2 heartbeats unanswered"),
                         ("#1 VoxMouse Wren", "Heartbeat answered after 502.0 ms (8 times)")]),
    "slow": (fault("mouse-state", "late", delay_ms=400), [("#1 VoxMouse Wren", "GetMouseState answered after 402")]),
    "damaged": (fault("mouse-state", "garbled"), [("#1 VoxMouse Wren", "")] * 2),
    "gone": ({"devices": wren(timeline=[{"at": 6, "unplug": True}])["devices"] + [{"model": "Tern"}]},
             [("#1 VoxMouse Wren", "the device has gone (error 1167), and has not come back")]),
    "one of two": ({"devices": wren(battery=12)["devices"] + [{"model": "Tern"}]},
                   [("#1 VoxMouse Wren", "its battery is at 12 %")]),
    "low battery": (wren(battery=12), [("#1 VoxMouse Wren", "its battery is at 12 %")]),
    "no voice channel": (fault("voice-open", "refuse"), [("#1 VoxMouse Wren", "its voice channel does not open"),
                                                        ("#1 VoxMouse Wren", "VoiceOpenReply: refused")]),
    "voice channel stays": (fault("voice-stop", "silent"), [("#1 VoxMouse Wren", "VoiceStop: no answer")]),
    "muted": ({"devices": wren()["devices"],
               "sound": {**SOUND, "endpoints": [{"name": "Microphone (VoxMouse Tern)", "muted": True}]}},
              [("Microphone (VoxMouse Tern)", "it is muted")]),
}


def main() -> int:
    wrong = 0
    with tempfile.TemporaryDirectory() as folder:
        for name, (desk, expected) in CASES.items():
            file = pathlib.Path(folder, "desk.json")
            file.write_text(json.dumps(desk))
            page = pathlib.Path(folder, "page.html")
            ended = subprocess.run([sys.argv[1], "--desk", str(file), "--virtual-time", "--json", "doctor", "--out",
                                    str(page)], capture_output=True, text=True, timeout=120)
            events = [json.loads(line) for line in ended.stdout.splitlines()]
            found = [(e["about"], e["what"]) for e in events if e["event"] == "finding"]
            count = len(expected)
            said = "" if count == 0 else f"voxdesk: there {'is' if count == 1 else 'are'} {count} finding"
            # An interface is called as its device is.
            names = [{e["model"] for e in events if e["event"] == kind and e["device"] > 0} for kind in ("interface", "health")]
            good = (names[0] == names[1] and len(found) == count and ended.returncode == (count > 0) and said in ended.stderr and
                    all(json.dumps(e[1])[1:-1] in page.read_text() for e in found) and all(e.get("advice") for e in events if e["event"] == "finding") and
                    all(f[0] == e[0] and f[1].startswith(e[1]) for f, e in zip(found, expected)))
            if not good:
                wrong += 1
                print(f"{name}: exit code {ended.returncode}, {found}, {ended.stderr}")
    return wrong


if __name__ == "__main__":
    sys.exit(main())
