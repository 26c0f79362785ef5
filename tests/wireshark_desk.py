"""What Wireshark's dissector says of recorded desks is what the simulated machine itself has logged, frame by frame.

wireshark_desk.py DISSECTOR VOXDESK FOLDER
"""
import collections
import json
import os
import re
import subprocess
import sys

from wireshark_frames import PROTOCOL, models_table, tshark

FIELDS = ["frame.time_epoch", "frame.interface_name", "frame.number"]
FIELDS += ["voxmouse." + field for field in """direction name code length payload sbc.frame codec.packet key.byte
  damaged unwritten_report response_to no_answer""".split()]
Row = collections.namedtuple("Row", [field.split(".", 1)[1].replace(".", "_") for field in FIELDS])

FIRST = {"model": "Wren", "serial": "WR0123456789ABCDEF",
         "timeline": [{"at": 3, "key": "0"}, {"at": 3.5, "key": "9"}, {"at": 4, "power": 33},
                      {"at": 7, "unplug": True}],
         "faults": [{"command": "mouse-state", "answer": "garbled"}, {"command": "dongle-state", "answer": "silent"}]}
OTHERS = [{"model": "Swift", "link": "bluetooth", "timeline": [{"at": 3, "key": "4"}, {"at": 4, "sleep": True}]},
          {"model": "Tern", "link": "bluetooth", "timeline": [{"at": 5, "key": "I"}]},
          {"model": "Heron Plus", "link": "usb", "faults": [{"command": "heartbeat", "answer": "twice"}]},
          {"model": "Finch", "faults": [{"writes": "fail"}]},
          {"model": "Egret", "faults": [{"open": "refused"}]}]
OLDER = [{"kind": "hid-mouse", "timeline": [{"at": 3, "key": 33}, {"at": 4, "key": 0}]},
         {"kind": "voice-keyboard", "timeline": [{"at": 3, "key": 65}, {"at": 4, "key": 101}]}]


def one(model, link="usb", **more):
    return {"devices": [{"model": model, "link": link, **more}]}


def refusing(model, step):
    return one(model, faults=[{"command": step, "answer": "refuse"}])


# What gets no answer, by the run.
UNANSWERED = {"many devices": {"GetMouseState", "GetDongleState", "Heartbeat"}}
UPDATE = ["update", "--yes", "--device", "1", "--first", "first.bin", "--second", "second.bin"]
RUNS = {
    "the main job": (None, []),
    "many devices": ({"devices": [FIRST, *OTHERS]}, ["monitor", "--seconds", "12"]),
    "older devices": ({"legacy": OLDER}, ["legacy", "--seconds", "6"]),
    "a Tern speaks": (None, ["record", "--device", "3", "--speech", "SAMPLE", "--out", "tern.wav", "--seconds", "1"]),
    "a new DPI": (one("Wren"), ["dpi", "--device", "1", "3200"]),
    "a URL": (one("Tern"), ["url", "--device", "1", "a.b/c-1=0"]),
    "the M key": (one("Swift", "bluetooth"), ["mkey", "set", "--device", "1", "3"]),
    **{f"a {model} is updated": (one(model), UPDATE) for model in ("Wren", "Heron Plus", "Tern")},
    **{f"a Wren refuses {step}": (refusing("Wren", step), UPDATE) for step in ("ota-open", "ota-data", "ota-complete")},
}


def names():
    """Code to name, sent and received, as docs/protocol.md has them."""
    sent, received = {}, {}
    for code, name in re.findall(r"^\| 0x(\w\w) \| `(\w+)`", PROTOCOL.read_text(), re.M):
        (sent if int(code, 16) < 0x68 else received)[int(code, 16)] = name
    answers = {row["`IdentifyReply`"] for row in models_table(PROTOCOL, "firmware")} - {"-"}
    received.update({int(code, 16): "IdentifyReply" for code in answers})
    received.update(zip(range(0x97, 0x9C), ("OtaPrepareReply", "OtaOpenReply", "OtaDataReply", "OtaEndReply",
                                            "OtaCompleteReply")))
    return sent, received


SENT, RECEIVED = names()


def decode(report, sent, device):
    """What is to be said of a report of the machine's log: a Row without what is not of the report."""
    said = dict.fromkeys(Row._fields[4:-3], "")
    if "pid_0132" in device or "pid_0135" in device:
        said.update(name="KeyReport", key_byte=f"0x{report[3 if 'pid_0132' in device else 2]:02x}")
    elif not sent and (report[0] == 0x1B or report[:2] == b"\x05\xad"):
        said.update(name="Speech", sbc_frame="|".join(report[at:at + 20].hex() for at in (2, 22, 42)))
    elif not sent and report[0] == 0x1A:
        at = 1 if "_dev_" in device else 3
        said.update(name="Speech", codec_packet=report[at:at + 40].hex())
    else:
        at = 1 if report[1] == 0xFE else 3
        code, count = report[at + 2:at + 4]
        payload = report[at + 4:at + 4 + count]
        if report[at:at + 2] != b"\xfe\xc0" or report[at + 4 + count] != 0xEF:
            said.update(damaged="damaged")
        else:
            said.update(name=(SENT if sent else RECEIVED)[code], code=f"0x{code:02x}", length=str(count),
                        payload=payload.hex())
    return said


def logged(path):
    """The reports of the machine's log, by device: microseconds, direction, and what is to be said."""
    line = re.compile(r"(\d+)\.(\d{3}) (read|write) (\w+) \(thread \d+, device (.*), handle \w+\)")
    reports = collections.defaultdict(list)
    with open(path, encoding="utf-8") as file:
        for match in filter(None, map(line.fullmatch, file.read().splitlines())):
            milliseconds, thousandths, what, report, device = match.groups()
            sent = what == "write"
            reports[device].append((int(milliseconds + thousandths), "sent" if sent else "received",
                                    decode(bytes.fromhex(report), sent, device)))
    return reports


def recorded(dissector, path):
    """The same as the dissector says it; how many answers it has found, and what got none."""
    out = tshark(dissector, path, "-2", "-Y", "voxmouse", "-T", "fields", "-E", "separator=/t", "-E", "aggregator=|",
                 *(argument for field in FIELDS for argument in ("-e", field)))
    rows = [Row(*line.split("\t")) for line in out.splitlines()]
    untaken = {row.unwritten_report for row in rows}  # the machine logs what the device has taken
    reports = collections.defaultdict(list)
    for row in rows:
        if row.direction and row.number not in untaken:
            said = {field: getattr(row, field) for field in Row._fields[4:-3]}
            if said["damaged"]:
                said = dict.fromkeys(said, "") | {"damaged": "damaged"}
            time = int(row.time_epoch.replace(".", "")[:-3])
            reports["#".join(row.interface_name.split("#")[1:-1])].append((time, row.direction, said))
    return reports, sum(bool(row.response_to) for row in rows), {row.name for row in rows if row.no_answer}


def compare(expected, found):
    wrong = []
    if {device for device in expected if expected[device]} != set(found):
        wrong.append(f"devices {sorted(found)} instead of {sorted(expected)}")
    beginnings = []
    for device in sorted(set(expected) & set(found)):
        if len(expected[device]) != len(found[device]):
            wrong.append(f"{device}: {len(found[device])} reports instead of {len(expected[device])}")
        for (time, direction, said), (time_found, direction_found, said_found) in zip(expected[device], found[device]):
            beginnings.append(time_found - time)
            if (direction, said) != (direction_found, said_found):
                wrong.append(f"{device}, {time} us: {direction_found} {said_found} instead of {direction} {said}")
    # Since 1970, in microseconds that the recorder rounds down.
    if beginnings and max(beginnings) - min(beginnings) > 1:
        wrong.append(f"times differ by {max(beginnings) - min(beginnings)} us")
    return wrong


def run(voxdesk, desk, arguments, sample):
    with open("desk.json", "w", encoding="utf-8") as file:
        json.dump(desk, file)
    command = [voxdesk, "--virtual-time", "--capture", "desk.pcapng", *(["--desk", "desk.json"] if desk else []),
               *(sample if argument == "SAMPLE" else argument for argument in arguments)]
    done = subprocess.run(command, capture_output=True, env={**os.environ, "VOXDEVICE_MACHINE_LOG": "machine.log"})
    if done.returncode not in (0, 1):  # 1: the device refuses, say
        sys.exit(f"{' '.join(command)}: exit code {done.returncode}\n{done.stderr.decode(errors='replace')}")


def main(dissector, voxdesk, folder):
    dissector, voxdesk = os.path.abspath(dissector), os.path.abspath(voxdesk)
    sample = str(PROTOCOL.parent.parent / "samples/sentence.wav")
    os.chdir(folder)
    for name, size in (("first.bin", 300), ("second.bin", 40)):
        with open(name, "wb") as file:
            file.write(bytes(i * 7 % 256 for i in range(size)))
    failures, seen = 0, set()
    for title, (desk, arguments) in RUNS.items():
        run(voxdesk, desk, arguments, sample)
        expected = logged("machine.log")
        found, answers, unanswered = recorded(dissector, "desk.pcapng")
        wrong = compare(expected, found)
        if unanswered != UNANSWERED.get(title, set()):
            wrong.append(f"no answer to {unanswered}")
        reports = [report for listed in expected.values() for report in listed]
        seen |= {said["name"] or "damaged" for _, _, said in reports}
        if not reports:
            wrong.append("no reports at all")
        failures += len(wrong)
        print(f"{title}: {len(reports)} reports, {answers} answers, {len(wrong)} differ")
        print("".join(f"  {line}\n" for line in wrong[:10]), end="")
    every = {*SENT.values(), *RECEIVED.values(), "Speech", "KeyReport", "damaged"}
    missing = every - {"AppExit"} - seen  # nobody is left whom voxdesk could tell that it goes
    if missing:
        print("never seen:", ", ".join(sorted(missing)))
    sys.exit(1 if failures or missing else 0)


if __name__ == "__main__":
    main(*sys.argv[1:])
