"""voxdesk on hidraw nodes: hidraw_test.py VOXDESK [HIDRAW_RIG HIDRAWTEST RECORD_C]. The rig plays the firmware behind them."""
import concurrent.futures
import itertools
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

VOXDESK, *PROGRAMS = sys.argv[1:]
PROJECT = pathlib.Path(__file__).resolve().parents[2]
MICE = [{"model": "Wren"}, {"model": "Heron Plus", "link": "bluetooth", "dpi": 1200, "battery": 64}]
# The mice only, and older devices only.
DESK = {"devices": MICE}
OLDER = {"devices": [], "legacy": [{"kind": "voice-keyboard", "timeline": [{"at": 2.5, "key": 65}]},
                                   {"kind": "hid-mouse", "timeline": [{"at": 3, "key": 33}, {"at": 4, "key": 0}]}]}
# umockdev's library comes first. In the rig, the thread sanitizer does not see what GLib's threads wait for.
RIG = {**os.environ, "ASAN_OPTIONS": "verify_asan_link_order=0", "TSAN_OPTIONS": "report_bugs=0"}
# A client's machine is never switched off. The thread sanitizer sees closedir, and not opendir: it takes libudev's descriptor
# for another file's that had the same number before.
SUPPRESSIONS = pathlib.Path(__file__).with_name("tsan.supp")
PROGRAM = ("env", f"TSAN_OPTIONS=report_thread_leaks=0:suppressions={SUPPRESSIONS}")


def place(text):
    number = 2166136261
    for byte in text.encode():
        number = (number ^ byte) * 16777619 & 0xFFFFFFFF
    return f"{number:08x}"


def usb(ids, port, interface, collection=0, mi=True):
    vendor, product = ids.split(":")
    part = f"&mi_0{interface}" if mi else ""
    instance = f"7&{place(f'/sys/devices/1-{port}/1-{port}:1.{interface}')}&0&000{collection}"
    return f"\\\\?\\hid#vid_{vendor}&pid_{product}{part}#{instance}#{{4d1e55b2-f16f-11cf-88cb-001111000030}}"


def low_energy(collection, turn=""):
    return ("\\\\?\\hid#{00001812-0000-1000-8000-00805f9b34fb}_dev_vid&02248a_pid&8266_rev&0001_c0a8010203ff"
            f"&col0{collection}#8&{place('c0a8010203ff' + turn)}&0&000{collection - 1}#"
            "{4d1e55b2-f16f-11cf-88cb-001111000030}")


class Test:
    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        self.runs = itertools.count()

    def run(self, desk, *command, deny=0, **environment):
        """The command's exit code, its standard output and error."""
        command = (*PROGRAM, *command)
        file = self.folder / f"desk{next(self.runs)}.json"
        file.write_text(json.dumps(desk))
        if deny:
            environment["HIDRAW_RIG_DENY"] = str(deny)  # seconds
            if os.geteuid() == 0:  # who may open everything
                command = ("setpriv", "--bounding-set=-dac_override,-dac_read_search", *command)
        ended = subprocess.run(["umockdev-wrapper", PROGRAMS[0], str(file), *command], capture_output=True, text=True,
                               timeout=200, env={**RIG, **environment})
        return ended.returncode, ended.stdout, ended.stderr

    def voxdesk(self, desk, *arguments, **more):
        return self.run(desk, VOXDESK, "--desk", "hardware", *arguments, **more)

    def events(self, desk, *arguments, **more):
        code, out, error = self.voxdesk(desk, "--json", *arguments, **more)
        assert code == 0, error
        return [json.loads(line) for line in out.splitlines()]

    def lists(self):
        events = self.events(DESK, "devices", "--verbose")
        found = [(e["path"], e["model"], e["input_length"], e["output_length"], re.sub("^access is .*", "denied", e["verdict"]))
                 for e in events if e["event"] == "interface"]
        expected = [(usb("1234:0001", 1, 0, mi=False), "", 0, 0, "no model of ours has 1234:0001"),
                    (usb("6d8c:6137", 3, 0), "VoxMouse Wren", 0, 0, "denied"),
                    (usb("6d8c:6137", 3, 1), "VoxMouse Wren", 64, 64, "in use"),
                    (low_energy(1), "VoxMouse Heron Plus", 0, 0, "denied"),
                    (low_energy(2), "VoxMouse Heron Plus", 0, 0, "denied"),
                    (low_energy(1, "+"), "VoxMouse Heron Plus", 0, 0, "denied"),
                    (low_energy(2, "+"), "VoxMouse Heron Plus", 64, 64, "in use")]
        assert sorted(found) == sorted(expected), found
        devices = {(e["model"], e["link"], e["battery"], e["dpi"]) for e in events if e["event"] == "device"}
        assert devices == {("VoxMouse Wren", "USB", 80, 1600), ("VoxMouse Heron Plus", "Bluetooth LE", 64, 1200)}, devices

    def presses_and_pulls_out(self):
        desk = {"devices": [{"model": "Wren", "timeline": [
            {"at": 3.5, "key": "0"}, {"at": 4, "key": "9"}, {"at": 4.5, "unplug": True}, {"at": 5, "plug": True}]}]}
        events = [e for e in self.events(desk, "monitor", "--seconds", "9")
                  if e["event"] in ("connect", "disconnect", "button")]
        told = [e["event"] + (" " + e["state"] if e["event"] == "button" else "") for e in events]
        # Half a second later, by the read that fails; the next list would tell it, too.
        assert events[3]["time"] - events[2]["time"] < 0.8, events
        assert told == ["connect", "button down", "button up", "disconnect", "connect"], told

    def reports(self):
        """Those of other collections stay out, and each is written in its own length."""
        events = self.events(DESK, "monitor", "--raw", "--seconds", "3")
        first = {e["report"][:2] for e in events if e["event"] == "report" and e["what"] == "received"}
        assert first == {"05"}, first
        events = self.events({"devices": [{"model": "Wren", "faults": [{"writes": "fail"}]}]}, "monitor", "--raw",
                             "--seconds", "3")
        assert {e["error"] for e in events if e.get("what") == "write-failed"} == {31}, events
        for device in ("wren", "heron plus"):
            code, _, error = self.voxdesk(DESK, "send", "07aa", "--device", device)
            assert code == 0 and "a report of 9 bytes, not 64" in error, (code, error)

    def records(self):
        speech = str(PROJECT / "samples/sentence.wav")
        for device in ("wren", "heron plus"):
            desk = {"devices": [{**mouse, "speech": speech} for mouse in MICE]}
            simulated, real = self.folder / f"{device} simulated", self.folder / f"{device} real"
            file = self.folder / f"{device}.json"
            file.write_text(json.dumps(desk))
            take = ("record", "--device", device, "--format", "raw", "--seconds", "3", "--out")
            subprocess.run([VOXDESK, "--desk", str(file), "--virtual-time", *take, str(simulated), "--speech", speech],
                           check=True, capture_output=True)
            code, _, error = self.voxdesk(desk, *take, str(real))
            assert code == 0, error
            expected, got = simulated.read_bytes(), real.read_bytes()
            length = min(len(expected), len(got))
            assert length >= 2 * 16000 * 2.9 and got[:length] == expected[:length], (len(expected), len(got))

    def commands(self):
        image = self.folder / "image.bin"
        image.write_bytes(bytes(i * 7 & 255 for i in range(20000)))
        commands = {
            ("devices", "--verbose"): "/dev/hidraw1 is left alone: its report descriptor is damaged.",
            ("state", "--device", "heron plus"): "battery 64 %, DPI 1200",
            ("dpi", "2400", "--device", "wren"): "DPI 2400",
            ("url", "example.com/a", "--device", "heron plus"): "download URL accepted",
            ("mkey", "list", "--device", "heron plus"): "function 2 of 1 2 3 4",
            ("mkey", "set", "3", "--device", "heron plus"): "function 3",
            ("update", "--yes", "--device", "wren", "--first", str(image)): "done",
            ("update", "--yes", "--device", "heron plus", "--first", str(image)): "done",
        }
        with concurrent.futures.ThreadPoolExecutor(len(commands)) as pool:
            ended = pool.map(lambda arguments: self.voxdesk(DESK, *arguments), commands)
        for (arguments, expected), (code, out, error) in zip(commands.items(), ended):
            assert code == 0 and expected in out, (arguments, code, out, error)

    def older(self):
        events = self.events(OLDER, "legacy", "--seconds", "5")
        told = [(e["key"], e["down"]) for e in events if e["event"] == "key"]
        assert told == [("left", True), ("left", False)], told
        assert any(e["event"] == "main-menu" for e in events), events

    def denied(self):
        # Without reports: each makes its pipe look like a node that has just come.
        desk = {**DESK, "legacy": [{"kind": "voice-keyboard"}, {"kind": "hid-mouse"}]}
        events = self.events(desk, "devices", "--verbose", deny=60)
        assert not [e for e in events if e["event"] == "device"], events
        verdicts = [e["verdict"] for e in events if e["event"] == "interface" and "/dev/hidraw" in e["verdict"]]
        assert len(verdicts) == 4 and all("docs/linux.md" in verdict for verdict in verdicts), verdicts
        code, out, error = self.voxdesk(desk, "monitor", "--seconds", "3", deny=60)
        assert (code, out.splitlines()[1:], error) == (0, [], ""), (code, out, error)  # silence
        code, out, error = self.voxdesk(desk, "doctor", deny=60)
        assert out.count("What may help: install those rules, and plug it in again") == 4, (code, out, error)
        code, out, error = self.voxdesk(desk, "legacy", "--seconds", "3", deny=60)
        assert "An older mouse stays silent: this user may not open /dev/hidraw" in out, (code, out, error)

    def settles(self):
        """An older device that is refused once is not tried again: a node is no interface before udev has done with it."""
        desk = {"devices": [], "legacy": [{"kind": "hid-mouse", "timeline": [{"at": 5, "key": 33}, {"at": 6, "key": 0}]}]}
        events = self.events(desk, "legacy", "--seconds", "7", deny=0.7)
        assert [e["down"] for e in events if e["event"] == "key"] == [True, False], events

    def sentences(self):
        for arguments, code, sentence in (
            (("sound",), 1, "voxdesk: Linux's desk of real devices"), (("mic", "--out", "x.wav"), 1, "voxdesk: Linux's"),
            (("speaker", "--out", "x.wav"), 1, "voxdesk: Linux's"), (("--virtual-time", "devices"), 2, "a time of their own"),
            (("record", "--speech", "a.wav", "--out", "x.wav"), 2, "hear for themselves"),
        ):
            got = self.voxdesk(DESK, *arguments)
            assert got[0] == code and sentence in got[2], (arguments, got)
        code, out, error = self.run(DESK, VOXDESK, "state")
        assert code == 0 and out.startswith("Plugged into this computer: VoxMouse Heron Plus, VoxMouse Wren. To work with "
                                            "it: voxdesk --desk hardware."), (code, out, error)

    def client(self):
        clients = PROJECT / "tests/clients"
        ended = subprocess.run([str(clients / "check.py"), "umockdev-wrapper", PROGRAMS[0],
                                str(clients / "held-key.json"), *PROGRAM, PROGRAMS[2]],
                               capture_output=True, text=True, env={**RIG, "VOXDEVICE_DESK": "hardware"})
        assert ended.returncode == 0, ended.stderr

    def rules(self):
        models = (PROJECT / "README.md").read_text().split("<!-- models: hardware -->")[1].split("<!-- end")[0]
        known = set(re.findall("[0-9A-F]{4}:[0-9A-F]{4}", models)) | {"0D8C:0132", "0D8C:0135"}
        ruled = re.findall(r'"\*:(.{9})\.\*", TAG\+="uaccess"', (PROJECT / "packaging/70-voxmouse.rules").read_text())
        assert sorted(ruled) == sorted(known), ruled

    def ends(self):
        code, out, error = self.run(DESK, PROGRAMS[1])
        assert code == 0, out + error


def main() -> int:
    missing = [] if PROGRAMS else ["libhidapi-dev, libumockdev-dev"]
    missing += [] if shutil.which("umockdev-wrapper") else ["umockdev"]
    if missing:
        print("Real devices were not tried: Debian's", ", ".join(missing), "is missing.")
        return 1 if os.environ.get("CI") == "true" else 77
    wrong = 0
    only = os.environ.get("ONLY")
    with tempfile.TemporaryDirectory() as folder, concurrent.futures.ThreadPoolExecutor(8) as pool:
        test = Test(folder)
        names = [only] if only else [
            "lists", "presses_and_pulls_out", "reports", "records", "commands", "older", "denied", "settles", "sentences", "ends",
            "client", "rules"]
        running = {name: pool.submit(getattr(test, name)) for name in names}
        for name, future in running.items():
            if (error := future.exception()) is not None:
                wrong += 1
                print(f"{name}: {error!r}")
    return wrong


if __name__ == "__main__":
    sys.exit(main())
