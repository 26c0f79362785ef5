"""Captures of each link type out of one list of frames, and what Wireshark's dissector is to say of every one of them.

wireshark_frames.py DISSECTOR FOLDER: writes the captures to the folder, runs tshark on them, and compares field by
field. The frames are encoded here from docs/protocol.md, and from nothing else.
"""
import pathlib
import random
import struct
import subprocess
import sys

USB, BLE, RECEIVER = "USB", "Bluetooth LE", "receiver"
SECOND = 1_000_000
START = 1_700_000_000 * SECOND
# All that is compared: whatever is not expected of a packet must not be there.
FIELDS = """direction link model name code length dpi status battery state address connection serial url challenge
  dongle.state dongle.flag dongle.ignored key key.action key.byte mkey.function mkey.supported ota.block ota.data
  ota.crc ota.crc_status ota.next ota.offset ota.count sbc.frame sbc.crc sbc.scale_factors codec.packet device thread
  tick event event.error event.text event.values response_in response_to time unanswered unwritten_report""".split()
PROTOCOL = pathlib.Path(__file__).parent.parent / "docs/protocol.md"


# Reports and what they say

def frame(prefix, code, payload):
    return b"\x05" + prefix + b"\xfe\xc0" + bytes([code, len(payload)]) + payload + b"\xef"


class Said:
    """A frame as one side says it: the code, the payload, what it means, and the summary's words."""

    def __init__(self, code, name, payload=b"", words="", experts=(), **fields):
        self.code, self.payload, self.experts = code, payload, list(experts)
        self.words = f"{name} {words}".rstrip()
        self.fields = {key.replace("__", "."): str(value) for key, value in fields.items()}
        self.fields.update(name=name, code=f"0x{code:02x}", length=str(len(payload)))


def big(number):
    return struct.pack(">H", number)


def refused(code, name, status=1, **fields):
    return Said(code, name, bytes([status]), f"refused ({status})", [f"Refused ({status})"], status=status)


def set_dpi(dpi):
    return Said(0x06, "SetDpi", big(dpi), str(dpi), dpi=dpi)


def dpi_reply(dpi, status=0):
    if status:
        return Said(0x96, "DpiReply", big(dpi) + bytes([status]), f"{dpi} refused ({status})",
                    [f"Refused ({status})"], dpi=dpi, status=status)
    return Said(0x96, "DpiReply", big(dpi) + b"\0", f"{dpi} applied", dpi=dpi, status=0)


def key(character, action=None, printed=None):
    fields = {"key__action": action} if action else {}
    printed = printed or character.decode()
    return Said(0x9F, "MouseKeyReply", character, f"'{printed}' {action or ''}", key=printed, **fields)


CHALLENGE = bytes(range(100, 132))
HEARTBEAT, HEARTBEAT_REPLY = Said(0x05, "Heartbeat"), Said(0x68, "HeartbeatReply")
IDENTIFY = Said(0x0F, "Identify", CHALLENGE, challenge=CHALLENGE.hex())
VOICE_OPEN, VOICE_STOP = Said(0x03, "VoiceOpen"), Said(0x04, "VoiceStop")
GET_DONGLE_STATE = Said(0x0D, "GetDongleState")
OTA_COMPLETE = Said(0x0B, "OtaComplete")


def identify_reply(code, model):
    return Said(code, "IdentifyReply", CHALLENGE, model, challenge=CHALLENGE.hex())


def ok(code, name, words):
    return Said(code, name, b"\0", words, status=0)


def ota_open(image):
    return Said(0x08, "OtaOpen", image, f"{len(image)} bytes", ota__data=image.hex())


def block(index, data):
    payload = struct.pack("<H", index) + data
    return Said(0x09, "OtaData", payload, f"block {index}", ota__block=index, ota__data=data.hex())


def wants(index):
    words = f"wants block {index}" if index else "has everything"
    return Said(0x99, "OtaDataReply", b"\0" + struct.pack("<H", index), words, status=0, ota__next=index)


def wants_bytes(code, name, offset, count):
    return Said(code, name, struct.pack(">IBB", offset, count, 0), f"wants {count} bytes at {offset}", status=0,
                ota__offset=offset, ota__count=count)


def crc16(data):
    crc = 0xFFFF
    for byte in data:
        crc ^= byte
        for _ in range(8):
            crc = crc >> 1 ^ (0xA001 if crc & 1 else 0)
    return crc


def checked(index, data, spoil=0):
    body = struct.pack("<H", index) + data.ljust(16, b"\xff")
    return body + struct.pack("<H", crc16(body) ^ spoil)


# The image that travels in these frames.
IMAGE = bytes(random.Random(5).randbytes(64))


# Devices and their packets

class Device:
    def __init__(self, list_, vendor, product, link, model=None, former=False, told=True):
        self.list, self.vendor, self.product, self.link, self.model = list_, vendor, product, link, model
        self.former, self.told = former, told  # told: the capture tells its identifiers
        self.now = START + 100 * SECOND * len(list_.devices)
        list_.devices.append(self)

    def wait(self, seconds):
        self.now += int(seconds * SECOND)

    def packet(self, sent, report, words, fields=None, experts=(), receiver=False, **more):
        self.wait(0.01)
        arrow, link = ("->" if sent else "<-"), (RECEIVER if receiver else self.link)
        packet = Packet(self, self.now, sent, report)
        if fields is not None:
            tail = f" ({link})" if sent or receiver else ""
            packet.info = f"{arrow} {words}{tail}{more.get('damage', '')}"
            packet.fields = {"direction": "sent" if sent else "received", "link": link, **fields}
            if self.model:
                packet.fields["model"] = self.model
        packet.experts, packet.answers = list(experts), more.get("to")
        if packet.answers:
            packet.answers.answer = packet
        self.list.packets.append(packet)
        return packet

    def send(self, said, receiver=False, **more):
        report = frame(b"\xff\xf0" if receiver else b"\xff\xf1", said.code, said.payload).ljust(64, b"\0")
        return self.packet(True, report, said.words, said.fields, said.experts, receiver, **more)

    def reply(self, said, receiver=False, **more):
        prefix = b"\xff\xf0" if receiver else b"" if self.link == BLE else b"\xff\xf1"
        report = frame(prefix, said.code, said.payload)
        return self.packet(False, report, said.words, said.fields, said.experts, receiver, **more)

    def ask(self, command, answer, **more):
        request = self.send(command, **more)
        return self.reply(answer, to=request, **more)

    def damaged(self, report, why, words="report", **fields):
        self.packet(False, bytes.fromhex(report), words, fields, ["Damaged: " + why], damage=", damaged: " + why)

    def lost(self, request, answer, bound, noticed):
        request.lost = f"No {answer} {bound}"
        noticed.notices.append((request, f"No {answer} to packet %d {bound}"))


class Packet:
    def __init__(self, device, time, sent, report):
        self.device, self.time, self.sent, self.report = device, time, sent, report
        self.info, self.fields, self.experts = None, None, []
        self.answers = self.answer = self.lost = None
        self.notices = []
        self.number = 0

    def expected(self, two_passes):
        fields, experts = dict(self.fields), list(self.experts)
        if self.answer and two_passes:
            fields["response_in"] = str(self.answer.number)
        if self.answers:
            fields["response_to"] = str(self.answers.number)
            fields["time"] = f"{(self.time - self.answers.time) / SECOND:.9f}"
        if self.notices:
            fields["unanswered"] = "|".join(str(request.number) for request, _ in self.notices)
        if two_passes:
            experts += [self.lost] if self.lost else []
        else:
            experts += [text % request.number for request, text in self.notices]
        return fields, sorted(experts)


class Frames:
    def __init__(self):
        self.devices, self.packets = [], []


def connect(device, identify=None, model=None):
    device.ask(HEARTBEAT, HEARTBEAT_REPLY)
    if identify:
        request = device.send(IDENTIFY)
        device.model = model
        device.reply(identify_reply(identify, model), to=request)
        device.send(Said(0x11, "IdentifyAck"))


def sbc(data):
    frames = [data[i:i + 20] for i in range(0, 60, 20)]
    return {"name": "Speech", "sbc.frame": "|".join(f.hex() for f in frames),
            "sbc.crc": "|".join(f"0x{f[0]:02x}" for f in frames),
            "sbc.scale_factors": "|".join(f[1:5].hex() for f in frames)}


def wren(frames):
    d = Device(frames, 0x6D8C, 0x6137, USB, "Wren")
    connect(d, 0xA0, "Wren")
    d.send(Said(0x01, "AppOpen"))
    d.reply(Said(0x69, "DeviceConnectReply", b"\x02", "2", connection=2))
    d.reply(Said(0xB1, "MouseSNReply", b"WR0123456789ABCDEF", "WR0123456789ABCDEF", serial="WR0123456789ABCDEF"))
    d.ask(Said(0x0C, "GetMouseState"),
          Said(0x9C, "MouseStateReply", bytes.fromhex("0102" "0640" "50" "c0a8010203ff"), "DPI 1600, battery 80 %",
               state="0x0102", dpi=1600, battery=80, address="c0:a8:01:02:03:ff"))
    d.ask(GET_DONGLE_STATE,
          Said(0x9D, "DongleStateReply", bytes.fromhex("010201"), "0x0102, flag set", dongle__state="0x0102",
               dongle__flag=1), receiver=True)
    d.reply(Said(0x9D, "DongleStateReply", bytes.fromhex("010302a1a2a3a4a5a6"), "0x0103, flag clear",
                 dongle__state="0x0103", dongle__flag=2, dongle__ignored="a1a2a3a4a5a6"), receiver=True)
    first, second = d.send(set_dpi(1600)), d.send(set_dpi(65535))
    d.reply(dpi_reply(1600), to=first)
    d.reply(dpi_reply(65535, 1), to=second)
    d.ask(Said(0x0E, "SetDownloadUrl", bytes.fromhex("041d1e262738372d2e00"), "az190/.-=?", url="az190/.-=?"),
          ok(0x9E, "DownloadUrlReply", "accepted"))
    d.reply(Said(0x6F, "DevicePowerReply", b"\x32", "50 %", battery=50))
    d.reply(key(b"0", "voice down"))
    d.reply(key(b"1", "no key of this model"))
    d.reply(key(b"\x07", "no key of this model", r"\x07"))
    wren_speaks(d)
    wren_damaged(d)
    wren_silent(d)
    wren_updated(d)
    d.send(Said(0x02, "AppExit"))


def wren_speaks(d):
    speech = bytes(range(60))
    d.ask(VOICE_OPEN, ok(0x6A, "VoiceOpenReply", "open"))
    d.packet(False, b"\x1b\x77" + speech, "Speech, 3 SBC frames", sbc(speech))
    d.packet(False, b"\x05\xad" + speech[::-1], "Speech, 3 SBC frames", sbc(speech[::-1]))
    d.ask(VOICE_STOP, Said(0x6B, "VoiceStopReply", b"\1\2"))
    d.ask(VOICE_OPEN, refused(0x6A, "VoiceOpenReply"))


def wren_damaged(d):
    for length in (3, 255):
        d.damaged(f"05fff1fec096{length:02x}06400000", f"no end marker at byte {length + 7}", "DpiReply",
                  name="DpiReply", code="0x96", length=str(length))
    d.damaged("05fff1fec19603064000ef", "the magic is not FE C0")
    d.damaged("05fff2fec09603064000ef", "an unknown prefix, FF F2")
    d.damaged("05fff1ffc09603064000ef", "no magic after the prefix")
    d.damaged("0500", "neither a prefix nor the magic after the report id")
    short = bytes(range(30))
    d.damaged("1b00" + short.hex(), "32 bytes instead of 62: the host takes the rest for zeros", "Speech, 3 SBC frames",
              **{"name": "Speech", "sbc.frame": f"{short[:20].hex()}|{short[20:].hex()}", "sbc.crc": "0x00|0x14",
                 "sbc.scale_factors": "01020304|15161718"})
    d.reply(Said(0x96, "DpiReply", b"\1\2", "of length 2", ["DpiReply of length 2: ignored by its receiver"]))
    d.reply(Said(0xB1, "MouseSNReply", b"WR-0123456789ABCDE", "WR-0123456789ABCDE",
                 ["Not letters and digits only: the host ignores it"], serial="WR-0123456789ABCDE"))
    d.reply(Said(0x77, "unknown code 0x77", b"\1", "", ["The protocol has no code 0x77"]))


def wren_silent(d):
    """Answers that do not come, or too late."""
    d.wait(5)
    voice = d.send(VOICE_OPEN)
    d.wait(0.9)
    d.reply(key(b"9", "voice up"))
    d.wait(0.2)
    d.lost(voice, "VoiceOpenReply", "within 1 s", d.reply(key(b"0", "voice down")))
    late = d.send(VOICE_STOP)
    d.wait(1.5)
    d.lost(late, "VoiceStopReply", "within 1 s", d.reply(Said(0x6B, "VoiceStopReply"), to=late))
    beats = []
    for _ in range(4):
        beats.append(d.send(HEARTBEAT))
        d.wait(1)
    for beat in range(2):
        d.lost(beats[beat], "HeartbeatReply", "before the next two heartbeats", beats[beat + 2])
    d.reply(HEARTBEAT_REPLY, to=beats[3])


def wren_updated(d):
    d.ask(ota_open(IMAGE[:16]), ok(0x98, "OtaOpenReply", "goes on"))
    d.ask(block(0, IMAGE[:16]), wants(300))
    d.ask(block(300, IMAGE[16:24]), wants(301))
    d.ask(OTA_COMPLETE, ok(0x9B, "OtaCompleteReply", "accepted"))
    d.send(OTA_COMPLETE)  # no answer is due
    d.wait(4)
    d.ask(ota_open(IMAGE[:16]), refused(0x98, "OtaOpenReply", 7))
    d.ask(Said(0x0A, "OtaAbort"), Said(0x9A, "OtaEndReply", b"\3", status=3))
    request = d.send(ota_open(IMAGE[:9]))
    d.wait(3.2)
    d.lost(request, "OtaOpenReply", "within 3.1 s", d.send(HEARTBEAT))


def heron_plus(frames):
    d = Device(frames, 0x248A, 0x8100, USB, "Heron Plus")
    d.damaged("05f1", "neither a prefix nor the magic after the report id")
    connect(d)
    # What the device itself says of the dongle is no answer of the receiver's.
    dongle = Said(0x9D, "DongleStateReply", bytes(3), "0x0000, flag clear", dongle__state="0x0000", dongle__flag=0)
    request = d.send(GET_DONGLE_STATE, receiver=True)
    d.reply(dongle)
    d.reply(dongle, receiver=True, to=request)
    d.reply(key(b"2", "screenshot"))
    d.ask(ota_open(IMAGE[:32]), ok(0x98, "OtaOpenReply", "goes on"), receiver=True)

    def data(first, second, words, experts=(), **fields):
        return Said(0x09, "OtaData", first + second, words, experts, **fields)

    one, two = IMAGE[:16], IMAGE[16:32]
    crcs = [f"0x{crc16(struct.pack('<H', index) + part):04x}" for index, part in ((0, one), (1, two))]
    both = data(checked(0, one), checked(1, two), "blocks 0, 1", ota__block="0|1", ota__crc="|".join(crcs),
                ota__data=f"{one.hex()}|{two.hex()}", ota__crc_status="1|1")
    d.ask(both, wants(2), receiver=True)
    rest = IMAGE[32:40].ljust(16, b"\xff")
    right = crc16(struct.pack("<H", 2) + rest)
    last = data(checked(2, rest, 0x0100), b"\xff" * 20, "block 2 (wrong checksum)",
                [f"The checksum of block 2 is 0x{right:04x}, not 0x{right ^ 0x100:04x}"], ota__block=2,
                ota__data=rest.hex(), ota__crc=f"0x{right ^ 0x100:04x}", ota__crc_status=0)
    d.ask(last, wants(0), receiver=True)
    d.send(OTA_COMPLETE)
    d.wait(4)
    d.send(HEARTBEAT)


def tern(frames, product, link):
    d = Device(frames, 0x0D8C + (link == BLE), product, link, "Tern")
    connect(d)
    d.reply(key(b"I", "voice down, or right up"))
    codec = bytes(range(7, 47))
    speech = b"\x1a" + (b"" if link == BLE else b"\xff\xf1") + codec
    d.packet(False, speech, "Speech, a packet of the Tern's codec", {"name": "Speech", "codec.packet": codec.hex()})
    d.ask(Said(0x07, "OtaPrepare"), ok(0x97, "OtaPrepareReply", "goes on"))
    d.ask(ota_open(IMAGE[:10]), wants_bytes(0x98, "OtaOpenReply", 0, 24))

    def data(offset, part):
        return Said(0x09, "OtaData", part, f"{len(part)} bytes at {offset}", ota__data=part.hex(), ota__offset=offset)

    d.ask(data(0, IMAGE[:24]), wants_bytes(0x99, "OtaDataReply", 66000, 5))
    d.ask(data(66000, IMAGE[24:29]), wants_bytes(0x99, "OtaDataReply", 66005, 0))
    d.ask(OTA_COMPLETE, refused(0x9B, "OtaCompleteReply"))


def finch(frames):
    d = Device(frames, 0x3D8D, 0x3138, BLE, "Finch")
    connect(d, 0xA1, "Finch")
    d.reply(key(b"2", "open navigation"))
    d.send(GET_DONGLE_STATE, receiver=True)  # nobody is there to answer
    d.wait(2)
    d.reply(key(b"3", "screenshot"))
    speech = bytes(range(60))
    d.packet(False, b"\x1b\x77" + speech, "Speech, 3 SBC frames", sbc(speech))
    d.packet(False, b"\x05\xad" + speech + b"\0\0", "Speech, 3 SBC frames", sbc(speech))
    d.damaged("05fec09f0133ee", "no end marker at byte 6", "MouseKeyReply", name="MouseKeyReply", code="0x9f",
              length="1")


def swift(frames):
    d = Device(frames, 0x248A, 0x8266, BLE, "Heron Plus")
    d.reply(key(b"0", "voice down"))
    connect(d, 0xA6, "Swift")
    d.reply(key(b"4", "(M key down)"))

    def functions(*numbers):
        words = f"{'screenshot' if numbers[0] == 3 else 'none'}, supports {' '.join(map(str, numbers[1:]))}"
        return Said(0xB3, "MKeyTypeReply", bytes(numbers), words, mkey__function=numbers[0],
                    mkey__supported="|".join(map(str, numbers[1:])))

    d.reply(Said(0xB3, "MKeyTypeReply", b"\3", "of length 1", ["MKeyTypeReply of length 1: ignored by its receiver"]))
    d.ask(Said(0x14, "GetMKeyTypeList"), functions(0, 0, 2, 3))
    screenshot = Said(0x15, "SetMKeyType", b"\3", "screenshot", mkey__function=3)
    d.ask(screenshot, functions(3, 0, 2, 3))
    request = d.send(screenshot)
    d.wait(2.4)
    d.reply(key(b"C", "(M key up)"))
    d.wait(0.2)
    d.lost(request, "MKeyTypeReply", "within 2.5 s", d.reply(key(b"4", "(M key down)")))


def nameless(frames):
    """A device of which the capture does not tell who it is: known by the form of its frames."""
    d = Device(frames, 0, 0, USB, told=False)
    d.packet(False, b"\x1b\0" + bytes(60), "", None)  # could be anybody's
    d.ask(set_dpi(400), dpi_reply(400))
    d.reply(key(b"0"))
    d.damaged("05f1", "neither a prefix nor the magic after the report id")
    d.ask(ota_open(IMAGE[:16]), ok(0x98, "OtaOpenReply", "goes on"))
    d.ask(block(0, IMAGE[:16]), wants(1))


def older(frames):
    mouse = Device(frames, 0x0D8C, 0x0132, USB, "older mouse", former=True)
    keyboard = Device(frames, 0x0D8C, 0x0135, USB, "voice keyboard", former=True)
    for device, report, byte, action in (
            (mouse, "0100002100000000", 0x21, "voice down"), (mouse, "0100004100000000", 0x41, "all up"),
            (keyboard, "0100410000000000", 0x41, "navigation"), (keyboard, "0100650000000000", 0x65, "battery low"),
            (keyboard, "0100110000000000", 0x11, "right down"), (keyboard, "0100002100000000", 0x00, "all up")):
        device.packet(False, bytes.fromhex(report), f"KeyReport {action}",
                      {"name": "KeyReport", "key.byte": f"0x{byte:02x}", "key.action": action})


def foreign(frames, link):
    """Somebody else's mouse. Even what looks like ours is not."""
    d = Device(frames, 0x1111, 0x2222, link)
    d.packet(False, bytes.fromhex("0100050000000000"), "", None)
    d.packet(False, frame(b"\xff\xf1", 0x9F, b"0"), "", None)
    d.packet(True, frame(b"\xff\xf1", 0x05, b"").ljust(64, b"\0"), "", None)


def models_table(document, part):
    """The rows of a table that is made from the models' sheets."""
    text = document.read_text().split(f"<!-- models: {part} -->")[1].split("<!-- end")[0]
    rows = [[cell.strip() for cell in line.strip("|").split("|")] for line in text.strip().splitlines()]
    return [dict(zip(rows[0], row)) for row in rows[2:]]


def every_key(frames):
    """The keys of every model, as the documents have them."""
    identifiers = {row["model"].split(" (")[0]: row["Bluetooth LE (vendor:product)"]
                   for row in models_table(PROTOCOL.parent.parent / "README.md", "hardware")}
    answers = {row["model"]: row["`IdentifyReply`"] for row in models_table(PROTOCOL, "firmware")}
    keys = models_table(PROTOCOL, "keys")
    for models in list(keys[0])[1:]:
        for model in models.split(", "):
            presented = identifiers[model].removeprefix("as the ")
            vendor, product = (int(number, 16) for number in identifiers.get(presented, presented).split(":"))
            d = Device(frames, vendor, product, BLE, model)
            if presented in identifiers:
                d.model = presented
                connect(d, int(answers[model], 16), model)
            for row in keys:
                action = row[models] if row[models] != "-" else "no key of this model"
                d.reply(key(row["key"].strip("`").encode(), action))


def all_frames():
    frames = Frames()
    wren(frames)
    heron_plus(frames)
    tern(frames, 0x0137, USB)
    tern(frames, 0x0138, BLE)
    finch(frames)
    swift(frames)
    nameless(frames)
    older(frames)
    every_key(frames)
    foreign(frames, USB)
    foreign(frames, BLE)
    return frames


# Files

def padded(data):
    return data + b"\0" * (-len(data) % 4)


def file_block(kind, body):
    size = struct.pack("<I", len(padded(body)) + 12)
    return struct.pack("<I", kind) + size + padded(body) + size


def options(**values):
    codes = {"comment": 1, "name": 2, "description": 3, "resolution": 9}
    given = [(codes[name], value) for name, value in values.items() if value]
    return b"".join(struct.pack("<HH", code, len(value)) + padded(value) for code, value in given) + bytes(4)


class File:
    """A capture, and what is expected of each of its packets; None where the dissector has nothing to say."""

    def __init__(self, link_type):
        self.link_type, self.interfaces = link_type, 0
        self.blocks = [file_block(0x0A0D0D0A, struct.pack("<IHHq", 0x1A2B3C4D, 1, 0, -1) + options())]
        self.packets = []  # (interface, time, data, comment, expected)

    def interface(self, name, description=""):
        body = struct.pack("<HHI", self.link_type, 0, 0)
        told = options(name=name.encode(), description=description.encode(), resolution=b"\6")
        self.blocks.append(file_block(1, body + told))
        self.interfaces += 1
        return self.interfaces - 1

    def add(self, time, data, expected=None, interface=0, comment=""):
        self.packets.append((interface, time, data, comment, expected))
        if expected:
            expected.number = len(self.packets)

    def write(self, path, change=lambda data: data):
        blocks = list(self.blocks)
        for interface, time, data, comment, _ in self.packets:
            data, comment = change(data), change(comment.encode()) if comment else b""
            body = struct.pack("<IIIII", interface, time >> 32, time & 0xFFFFFFFF, len(data), len(data)) + padded(data)
            blocks.append(file_block(6, body + options(comment=comment)))
        with open(path, "wb") as file:
            file.write(b"".join(blocks))


def recorder_file(frames):
    """Link type 252, as our own recorder writes it."""
    file = File(252)
    file.interface("client")
    interfaces = {}

    def path_of(number):
        return rf"\\?\hid#vid_{frames.devices[number].vendor:04x}#{number}"

    def about(device):
        link = {USB: "usb", BLE: "ble"}[device.link]
        return f"vid={device.vendor:04x} pid={device.product:04x} link={link} in=64 out=64 former={int(device.former)}"

    for number, device in enumerate(frames.devices):
        interfaces[device] = file.interface(path_of(number), about(device))

    def pdu(report, sent):
        direction = b"" if sent is None else struct.pack(">HHI", 35, 4, 0 if sent else 1)
        return struct.pack(">HH8s", 12, 8, b"voxmouse") + direction + bytes(4) + report

    def add_event(interface, event, info, device=-1, **told):
        packet = Packet(None, START, False, b"")
        packet.info = info
        packet.fields = {"event." + name: value for name, value in told.items()}
        packet.fields.update(event=event, device=str(device), thread="3", tick="4294967295")
        comment = f"device={device} thread=3 tick=4294967295 event={event}"
        comment += "".join(f" {name}={told[name]}" for name in ("error", "values", "text") if name in told)
        file.add(START, pdu(b"", None), packet, interface, comment)
        return packet

    add_event(1, "opened", "opened")
    add_event(2, "refused", "refused, error 5", error="5")
    add_event(0, "log", "log 43: 设备 text=connected", device=1, values="43", text="设备 text=connected")
    add_event(0, "mousestate", "mousestate 2,2,258", device=1, values="2,2,258")
    # An interface that is described again stays the same.
    again = file.interface(path_of(0), about(frames.devices[0]))
    request = Packet(frames.devices[0], START, True, frame(b"\xff\xf1", 3, b"").ljust(64, b"\0"))
    request.info = "-> VoiceOpen (USB)"
    request.fields = {"direction": "sent", "link": USB, "model": "Wren", **VOICE_OPEN.fields}
    file.add(START, pdu(request.report, True), request, 1)
    failed = add_event(again, "write-failed", "write-failed, error 1167", error="1167")
    failed.fields["unwritten_report"] = str(request.number)
    failed.experts = [f"Packet {request.number} could not be written"]
    for packet in frames.packets:
        if packet.fields is None:
            continue  # the recorder has opened no such device
        packet.fields.update(device="1", thread="7", tick="123")
        file.add(packet.time, pdu(packet.report, packet.sent), packet, interfaces[packet.device],
                 "device=1 thread=7 tick=123")
    return file


def device_descriptor(device):
    return struct.pack("<BBHBBBBHHHBBBB", 18, 1, 0x200, 0, 0, 0, 64, device.vendor, device.product, 0x100, 0, 0, 0, 1)


# A HID interface with an endpoint of each direction.
CONFIGURATION = bytes.fromhex("09022900010100a032" "090400000203000000" "092111010001223400" "07058103400001"
                              "07050203400001")
GET_DEVICE, GET_CONFIGURATION = bytes.fromhex("8006000100001200"), bytes.fromhex("8006000200002900")
OUT, IN, CONTROL_IN = 0x02, 0x81, 0x80


def set_report(report):
    return struct.pack("<BBBBHH", 0x21, 0x09, report[0], 2, 0, len(report))


def usb_file(frames, link_type, transfer):
    """transfer(file, time, address, endpoint, data, setup, expected): one transfer with its completion."""
    file = File(link_type)
    file.interface("usb")
    devices = [device for device in frames.devices if device.link == USB]
    for address, device in enumerate(devices, 3):
        if device.told:
            transfer(file, START, address, CONTROL_IN, device_descriptor(device), GET_DEVICE, None)
            transfer(file, START, address, CONTROL_IN, CONFIGURATION, GET_CONFIGURATION, None)
    as_request = set()  # every second report of a device goes out as a SET_REPORT
    for packet in frames.packets:
        if packet.device.link != USB:
            continue
        expected = packet if packet.fields else None
        address = devices.index(packet.device) + 3
        if packet.sent:
            as_request ^= {address}
        if packet.sent and address in as_request:
            transfer(file, packet.time, address, 0, packet.report, set_report(packet.report), expected)
        else:
            transfer(file, packet.time, address, OUT if packet.sent else IN, packet.report, None, expected)
    for packet in frames.packets:
        if packet.fields:
            for name in ("device", "thread", "tick"):
                packet.fields.pop(name, None)
    return file


def usbmon_file(frames):
    def packet(kind, time, address, endpoint, data, setup, urb, length):
        control = endpoint & 0x7F == 0
        head = struct.pack("<QcBBBHBBqiiII", urb, kind, 2 if control else 1, endpoint, address, 1, 0 if setup else 0x2D,
                           0 if data else 0x3E, time // SECOND, time % SECOND, 0, length, len(data))
        return head + (setup or bytes(8)) + bytes(16) + data

    def transfer(file, time, address, endpoint, data, setup, expected):
        urb, incoming = len(file.packets), endpoint & 0x80
        first = packet(b"S", time, address, endpoint, b"" if incoming else data, setup, urb, len(data))
        second = packet(b"C", time, address, endpoint, data if incoming else b"", None, urb, len(data))
        file.add(time, first, None if incoming else expected)
        file.add(time, second, expected if incoming else None)

    return usb_file(frames, 220, transfer)


def usbpcap_file(frames):
    def packet(address, endpoint, data, stage, irp, completion):
        control = stage is not None
        head = struct.pack("<HQIHBHHBBI", 27 + control, irp, 0, 8 if control else 9, completion, 1, address, endpoint,
                           2 if control else 1, len(data))
        return head + (bytes([stage]) if control else b"") + data

    def transfer(file, time, address, endpoint, data, setup, expected):
        irp, incoming = len(file.packets), endpoint & 0x80
        stages = (0, 3) if setup else (None, None)
        out = (setup or b"") + (b"" if incoming else data)
        back = data if incoming else b""
        file.add(time, packet(address, endpoint, out, stages[0], irp, 0), None if incoming else expected)
        file.add(time, packet(address, endpoint, back, stages[1], irp, 1), expected if incoming else None)

    return usb_file(frames, 249, transfer)


def bluetooth_file(frames):
    """Link type 201: HCI with direction. Discovery tells which handle is a report, and the PnP id whose it is."""
    file = File(201)
    file.interface("bluetooth")

    def att(time, device, sent, pdu, expected=None):
        connection = 0x40 + frames.devices.index(device)
        body = struct.pack("<HH", len(pdu), 4) + pdu
        acl = struct.pack("<BHH", 2, connection | (0 if sent else 0x2000), len(body)) + body
        file.add(time, struct.pack(">I", not sent) + acl, expected)

    output, notified, pnp = 0x15, 0x11, 0x19
    for number, device in enumerate(frames.devices):
        if device.link != BLE:
            continue
        complete = struct.pack("<BBHBB6sHHHB", 1, 0, 0x40 + number, 0, 0, bytes([number] * 6), 24, 0, 42, 0)
        file.add(START, struct.pack(">IBBB", 1, 4, 0x3E, len(complete)) + complete)
        att(START, device, True, struct.pack("<BH", 0x02, 185))  # the longest value
        att(START, device, False, struct.pack("<BH", 0x03, 185))
        att(START, device, True, struct.pack("<BHHH", 0x08, 1, 0xFFFF, 0x2803))
        characteristics = ((0x10, 0x12, notified, 0x2A4D), (0x14, 0x0E, output, 0x2A4D), (0x18, 0x02, pnp, 0x2A50))
        att(START, device, False, b"\x09\x07" + b"".join(struct.pack("<HBHH", *row) for row in characteristics))
        att(START, device, True, struct.pack("<BH", 0x0A, pnp))
        att(START, device, False, struct.pack("<BBHHH", 0x0B, 1, device.vendor, device.product, 1))
    for packet in frames.packets:
        if packet.device.link == BLE:
            opcode, handle = (0x52, output) if packet.sent else (0x1B, notified)
            value = struct.pack("<BH", opcode, handle) + packet.report[1:]  # without the report id
            att(packet.time, packet.device, packet.sent, value, packet if packet.fields else None)
    return file


# Comparing

TWO_PASSES = ["-2", "-Y", "frame"]  # without a filter, the first of two passes has no fields

def tshark(dissector, path, *arguments):
    command = ["tshark", "-X", f"lua_script:{dissector}", "-r", path, *arguments]
    run = subprocess.run(command, capture_output=True, text=True, errors="replace")
    if run.returncode or "Lua" in run.stdout + run.stderr:
        lines = [line for line in (run.stdout + run.stderr).splitlines() if "Lua" in line]
        sys.exit(f"tshark {path}: exit code {run.returncode}\n" + "\n".join(lines[:5]))
    return run.stdout


def rows(dissector, path, arguments):
    columns = ["_ws.col.Protocol", "_ws.col.Info", "_ws.expert.message"] + ["voxmouse." + field for field in FIELDS]
    printed = ["-T", "fields", "-E", "separator=/t", "-E", "aggregator=|"] + [a for c in columns for a in ("-e", c)]
    out = tshark(dissector, path, *arguments, *printed)
    return [line.split("\t") for line in out.splitlines()]


def compare(dissector, path, file, *arguments, told_only=False):
    """Gives how many packets had something to say, and what is wrong."""
    found, wrong, said = rows(dissector, path, arguments), [], 0
    two_passes = "-2" in arguments
    if len(found) != len(file.packets):
        return 0, [f"{len(found)} packets instead of {len(file.packets)}"]
    for number, (row, (*_, packet)) in enumerate(zip(found, file.packets), 1):
        protocol, info, experts = row[:3]
        fields = {field: value for field, value in zip(FIELDS, row[3:]) if value}
        if not packet or (told_only and not packet.device.told):
            if fields or protocol == "VoxMouse":
                wrong.append(f"packet {number}: not ours, but {protocol}: {fields}")
            continue
        said += 1
        expected, warnings = packet.expected(two_passes)
        messages = sorted(text for text in experts.split("|") if text and not text.startswith("device="))
        for name, got, wanted in (("protocol", protocol, "VoxMouse"), ("info", info, packet.info),
                                  ("experts", messages, warnings)):
            if got != wanted:
                wrong.append(f"packet {number}: {name} {got!r} instead of {wanted!r}")
        for field in FIELDS:
            got, wanted = fields.get(field), expected.get(field)
            if got != wanted:
                wrong.append(f"packet {number} ({packet.info}): {field} {got!r} instead of {wanted!r}")
    return said, wrong


def mutated(random_, data):
    data = bytearray(data)
    for _ in range(random_.randint(1, 4)):
        data[random_.randrange(len(data))] = random_.choice((0, 0xFF, random_.randrange(256)))
    shortest = min(4, len(data))  # a pseudo-header
    return bytes(data[:random_.randint(shortest, len(data))] if random_.random() < 0.3 else data)


def main(dissector, folder):
    frames, failures = all_frames(), 0
    random_ = random.Random(1)
    for make in (recorder_file, usbpcap_file, usbmon_file, bluetooth_file):
        file = make(frames)
        path = f"{folder}/{file.link_type}.pcapng"
        file.write(path)
        ways = {"one pass": [], "two passes": TWO_PASSES}
        if file.link_type in (249, 220):
            ways["no guesses"] = [*TWO_PASSES, "-o", "usb.try_heuristics:FALSE"]
        for way, arguments in ways.items():
            said, wrong = compare(dissector, path, file, *arguments, told_only=way == "no guesses")
            failures += len(wrong)
            print(f"link type {file.link_type}, {way}: {said} of {len(file.packets)} packets are ours, "
                  f"{len(wrong)} mistakes")
            print("".join(f"  {line}\n" for line in wrong[:20]), end="")
        # No bytes whatever are an error of the dissector's.
        file.packets *= 10
        file.write(path, lambda data: mutated(random_, data))
        tshark(dissector, path, *TWO_PASSES, "-V")
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main(*sys.argv[1:])
