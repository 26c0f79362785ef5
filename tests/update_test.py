"""voxdesk update --rehearse leads in every family of firmware to what docs/update.md says, and update says what it has sent:
update_test.py VOXDESK PROJECT, or update_test.py --write VOXDESK PROJECT to write the table of docs/update.md."""
import collections
import json
import pathlib
import subprocess
import sys
import tempfile

BEGIN, END = "<!-- rehearsals -->\n", "<!-- end of rehearsals -->\n"
SIZES = (330, 200)
# Family, model, bytes of a message, whether its first message can be asked for again, messages per image beside the data
# that are answered, and that are not.
FAMILIES = [("Standard", "wren", 16, False, 2, 1), ("Zh", "heron plus", 32, False, 2, 1), ("Tern", "tern", 40, True, 3, 0)]
STATES = ("old", "incomplete", "new")


def main() -> int:
    voxdesk, project = sys.argv[-2], pathlib.Path(sys.argv[-1])
    wrong = []
    with tempfile.TemporaryDirectory() as folder:
        images = [pathlib.Path(folder, name) for name in ("a.bin", "b.bin")]
        for image, size in zip(images, SIZES):
            image.write_bytes(bytes((7 * i + size) % 251 for i in range(size)))
        both = ["--first", str(images[0]), "--second", str(images[1])]

        def run(*arguments: str) -> tuple[int, list, str]:
            ended = subprocess.run([voxdesk, *arguments], capture_output=True, text=True, timeout=120)
            return ended.returncode, [json.loads(line) for line in ended.stdout.splitlines()], ended.stderr

        lines = ["| firmware | fault | runs | done | done again | failed | device: old | incomplete | new | receiver: old | "
                 "incomplete | new |\n", "| --- " * 12 + "|\n"]
        for family, model, length, first_again, answered, closing in FAMILIES:
            code, events, said = run("update", "--rehearse", "--json", "--device", model, *both)
            rows = [e for e in events if e["event"] == "rehearsed"]
            sums = collections.defaultdict(collections.Counter)
            for row in rows:
                sums[row["fault"]].update({key: row["runs"] for key in ("runs", row["outcome"], "d-" + row["device_firmware"],
                                                                       "r-" + row["receiver_firmware"])})
                # Who is told that all is well has new firmware, twice; whose completion is refused has not, and is told.
                new = row["device_firmware"] == row["receiver_firmware"] == "new"
                if row["outcome"].startswith("done") and (not new or row["failure"]) or row["outcome"] == "failed" and not row["failure"]:
                    wrong.append(f"{family}: {row}")
            data = [-(-size // length) for size in SIZES]
            spoilt = sum(data) + 2 * answered
            expected = {"refused": spoilt, "silence": spoilt, "pulled out": spoilt + 2 * closing,
                        "asked again": sum(data) - (0 if first_again else 2)}
            if code or {fault: count["runs"] for fault, count in sums.items()} != expected or events[-1]["runs"] != sum(
                    expected.values()) or events[-1]["messages"] != expected["pulled out"]:
                wrong.append(f"{family}: {code}, {said}, {sums}, {events[-1:]}, not {expected}")
            for fault in expected:
                cells = [sums[fault][key] for key in ("runs", "done", "done again", "failed")]
                cells += [sums[fault][f"{who}-{state}"] for who in "dr" for state in STATES]
                lines.append(f"| {family} | {fault} | " + " | ".join(map(str, cells)) + " |\n")
            # The update itself has as many messages.
            code, events, said = run("--virtual-time", "update", "--yes", "--json", "--device", "1", *both, "--desk", str(
                desk_of(folder, {"model": model.title(), "link": "usb"})))
            summary = next(e for e in events if e["event"] == "update-summary")
            if code or (summary["bytes"], summary["data"], summary["messages"], summary["again"]) != (
                    sum(SIZES), sum(data), expected["pulled out"], 0):
                wrong.append(f"{family}: {code}, {said}, {summary}")

        code, events, said = run("--virtual-time", "update", "--yes", "--json", *both, "--desk", str(
            desk_of(folder, {"model": "Wren", "faults": [{"command": "ota-complete", "answer": "refuse"}]})))
        result = [e["result"] for e in events if e["event"] == "image"]
        if code != 1 or result != ["refused by the device at completing", "done"]:
            wrong.append(f"a refused completion: {code}, {result}, {said}")
        # A long update is tried in part.
        images[1].write_bytes(bytes(2000))
        code, events, said = run("update", "--rehearse", "--tries", "100", "--json", "--first", str(images[1]))
        if code or [events[-1][key] for key in ("messages", "tried", "runs")] != [128, 101, 3 + 98 * 3 + 97 + 3 + 1]:
            wrong.append(f"a long image: {code}, {events[-1:]}, {said}")
        images[1].write_bytes(images[0].read_bytes())
        for said, code, arguments in (
                ("both images have the same content", 0, both), ("only --first can be sent", 1, ["--link", "bluetooth", *both]),
                ("there is no such device to rehearse with", 1, ["--device", "gull", *both]),
                ("which device? --device gives its number; there are: 1 Wren (usb), 2 Wren (usb)", 1,
                 ["--device", "wren", "--desk", str(desk_of(folder, *[{"model": "Wren"}] * 2)), *both]),
                ("a rehearsal does not take this option", 2, ["--capture", "a.pcapng", *both])):
            ended = run("update", "--rehearse", "--json", *arguments)
            if ended[0] != code or said not in ended[2]:
                wrong.append(f"{arguments}: {ended}")

    page = project / "docs/update.md"
    before, rest = page.read_text().split(BEGIN)
    old, after = rest.split(END)
    if sys.argv[1] == "--write":
        page.write_text(before + BEGIN + "".join(lines) + END + after)
    elif old != "".join(lines):
        wrong.append("docs/update.md is not what voxdesk says: use --write")
    print("\n".join(wrong))
    return len(wrong) > 0


def desk_of(folder: str, *devices: dict) -> pathlib.Path:
    desk = pathlib.Path(folder, "desk.json")
    desk.write_text(json.dumps({"devices": devices}))
    return desk


if __name__ == "__main__":
    sys.exit(main())
