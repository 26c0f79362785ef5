-- What goes over the wire between a VoxMouse and its host. docs/protocol.md describes the protocol, docs/wireshark.md
-- how to install and use this file. For Lua 5.2 to 5.4, as Wireshark has them.

local voxmouse = Proto("voxmouse", "VoxMouse")

-- Fields --------------------------------------------------------------------------------------------------------------

local CRC_STATUS = {[0] = "Bad", [1] = "Good"}
local M_KEY_FUNCTIONS = {[0] = "none", [2] = "held button", [3] = "screenshot"}

local F = {
  direction = ProtoField.string("voxmouse.direction", "Direction"),
  link = ProtoField.string("voxmouse.link", "Link"),
  model = ProtoField.string("voxmouse.model", "Model"),
  name = ProtoField.string("voxmouse.name", "Name"),

  report_id = ProtoField.uint8("voxmouse.report_id", "Report id", base.HEX),
  prefix = ProtoField.uint16("voxmouse.prefix", "Channel prefix", base.HEX),
  magic = ProtoField.uint16("voxmouse.magic", "Magic", base.HEX),
  code = ProtoField.uint8("voxmouse.code", "Code", base.HEX),
  length = ProtoField.uint8("voxmouse.length", "Length of the payload"),
  payload = ProtoField.bytes("voxmouse.payload", "Payload"),
  end_marker = ProtoField.uint8("voxmouse.end", "End marker", base.HEX),

  address = ProtoField.ether("voxmouse.address", "Bluetooth address"),
  battery = ProtoField.uint8("voxmouse.battery", "Battery level"),
  challenge = ProtoField.bytes("voxmouse.challenge", "Challenge"),
  connection = ProtoField.uint8("voxmouse.connection", "Connection"),
  dongle_flag = ProtoField.uint8("voxmouse.dongle.flag", "Flag"),
  dongle_ignored = ProtoField.bytes("voxmouse.dongle.ignored", "Ignored by the host"),
  dongle_state = ProtoField.uint16("voxmouse.dongle.state", "State word", base.HEX),
  dpi = ProtoField.uint16("voxmouse.dpi", "DPI"),
  key = ProtoField.string("voxmouse.key", "Key character"),
  key_action = ProtoField.string("voxmouse.key.action", "Action of the key"),
  key_byte = ProtoField.uint8("voxmouse.key.byte", "Key byte", base.HEX),
  mkey_function = ProtoField.uint8("voxmouse.mkey.function", "Function of the M key", base.DEC, M_KEY_FUNCTIONS),
  mkey_supported = ProtoField.uint8("voxmouse.mkey.supported", "Supported function", base.DEC, M_KEY_FUNCTIONS),
  serial = ProtoField.string("voxmouse.serial", "Serial number"),
  state = ProtoField.uint16("voxmouse.state", "State word", base.HEX),
  status = ProtoField.uint8("voxmouse.status", "Status"),
  url = ProtoField.string("voxmouse.url", "URL"),

  ota_block = ProtoField.uint16("voxmouse.ota.block", "Block"),
  ota_count = ProtoField.uint8("voxmouse.ota.count", "Bytes wanted"),
  ota_crc = ProtoField.uint16("voxmouse.ota.crc", "CRC-16/MODBUS", base.HEX),
  ota_crc_status = ProtoField.uint8("voxmouse.ota.crc_status", "Checksum", base.DEC, CRC_STATUS),
  ota_data = ProtoField.bytes("voxmouse.ota.data", "Part of the image"),
  ota_next = ProtoField.uint16("voxmouse.ota.next", "Block wanted next"),
  ota_offset = ProtoField.uint32("voxmouse.ota.offset", "Offset in the image"),

  codec_packet = ProtoField.bytes("voxmouse.codec.packet", "Packet of the Tern's codec"),
  sbc_crc = ProtoField.uint8("voxmouse.sbc.crc", "Checksum (the host does not check it)", base.HEX),
  sbc_frame = ProtoField.bytes("voxmouse.sbc.frame", "SBC frame"),
  sbc_scale_factors = ProtoField.bytes("voxmouse.sbc.scale_factors", "Scale factors"),

  device = ProtoField.int32("voxmouse.device", "The client's number for the device"),
  thread = ProtoField.uint32("voxmouse.thread", "Thread"),
  tick = ProtoField.uint32("voxmouse.tick", "Tick (ms)"),
  event = ProtoField.string("voxmouse.event", "Event"),
  event_error = ProtoField.uint32("voxmouse.event.error", "Error"),
  event_text = ProtoField.string("voxmouse.event.text", "Text"),
  event_values = ProtoField.string("voxmouse.event.values", "Values"),

  response_in = ProtoField.framenum("voxmouse.response_in", "Answered in", base.NONE, frametype.RESPONSE),
  response_to = ProtoField.framenum("voxmouse.response_to", "Answers", base.NONE, frametype.REQUEST),
  time = ProtoField.relative_time("voxmouse.time", "Time since the request"),
  unanswered = ProtoField.framenum("voxmouse.unanswered", "Not answered in time", base.NONE, frametype.REQUEST),
  unwritten = ProtoField.framenum("voxmouse.unwritten_report", "Not written", base.NONE, frametype.REQUEST),
}

local E = {
  crc = ProtoExpert.new("voxmouse.ota.crc_bad", "Wrong checksum", expert.group.CHECKSUM, expert.severity.WARN),
  cut = ProtoExpert.new("voxmouse.cut", "Cut off by the capture", expert.group.UNDECODED, expert.severity.NOTE),
  damaged = ProtoExpert.new("voxmouse.damaged", "Damaged frame", expert.group.MALFORMED, expert.severity.WARN),
  ignored = ProtoExpert.new("voxmouse.ignored", "Ignored by its receiver", expert.group.PROTOCOL, expert.severity.WARN),
  no_answer = ProtoExpert.new("voxmouse.no_answer", "No answer", expert.group.SEQUENCE, expert.severity.WARN),
  other = ProtoExpert.new("voxmouse.other", "Not of the protocol", expert.group.UNDECODED, expert.severity.NOTE),
  refused = ProtoExpert.new("voxmouse.refused", "Refused", expert.group.RESPONSE_CODE, expert.severity.NOTE),
  unwritten = ProtoExpert.new("voxmouse.unwritten", "Not written", expert.group.SEQUENCE, expert.severity.WARN),
}

local function values(map)
  local list = {}
  for _, value in pairs(map) do list[#list + 1] = value end
  return list
end
voxmouse.fields = values(F)
voxmouse.experts = values(E)

-- Models --------------------------------------------------------------------------------------------------------------

-- ids: vendor and product, over USB and over Bluetooth LE. A model without presents itself as another of its firmware.
-- In parentheses: keys that the library does not decode.
local MODELS = {
  -- <!-- models: dissector -->
  {
    name = "Tern", firmware = "Tern", ids = {0x0D8C0137, 0x0D8D0138},
    keys = {
      ["0"] = "voice up",
      ["1"] = "voice down",
      ["2"] = "voice double click",
      ["3"] = "right short press",
      ["4"] = "right down",
      ["5"] = "right up",
      ["9"] = "voice up",
      ["@"] = "right up",
      ["I"] = "voice down, or right up",
      ["Z"] = "right down, or voice up",
      ["]"] = "all up",
    },
  },
  {
    name = "Wren", firmware = "standard", identify = 0xA0, ids = {0x6D8C6137, 0x6D8D6138},
    keys = {
      ["0"] = "voice down",
      ["9"] = "voice up",
    },
  },
  {
    name = "Finch", firmware = "standard", identify = 0xA1, ids = {0x3D8D3138},
    keys = {
      ["0"] = "voice down",
      ["1"] = "right down",
      ["2"] = "open navigation",
      ["3"] = "screenshot",
      ["9"] = "voice up",
      ["@"] = "right up",
    },
  },
  {
    name = "Robin", firmware = "standard", identify = 0xA2, ids = {0x2D8D2138},
    keys = {
      ["0"] = "voice down",
      ["1"] = "right down",
      ["9"] = "voice up",
      ["@"] = "right up",
    },
  },
  {
    name = "Heron", firmware = "standard", identify = 0xA3, ids = {0x1D8D1138},
    keys = {
      ["0"] = "voice down",
      ["1"] = "right down",
      ["2"] = "screenshot",
      ["3"] = "open navigation",
      ["9"] = "voice up",
      ["@"] = "right up",
    },
  },
  {
    name = "Egret", firmware = "standard", identify = 0xA4, ids = {0x4D8D6138},
    keys = {
      ["0"] = "voice down",
      ["1"] = "right down",
      ["2"] = "screenshot",
      ["3"] = "open navigation",
      ["9"] = "voice up",
      ["@"] = "right up",
    },
  },
  {
    name = "Heron Plus", firmware = "Zh", identify = 0xA5, ids = {0x248A8100, 0x248A8266},
    keys = {
      ["0"] = "voice down",
      ["1"] = "right down",
      ["2"] = "screenshot",
      ["9"] = "voice up",
      ["@"] = "right up",
    },
  },
  {
    name = "Swift", firmware = "Zh", identify = 0xA6, ids = {},
    keys = {
      ["0"] = "(voice down)",
      ["1"] = "(right down)",
      ["4"] = "(M key down)",
      ["9"] = "(voice up)",
      ["@"] = "(right up)",
      ["C"] = "(M key up)",
    },
  },
  -- <!-- end of models -->
}

-- The older devices have no protocol: one byte of each report tells the keys.
local FORMER_MOUSE_KEYS = {[0x21] = "voice down", [0x11] = "right down"}
local FORMER_KEYBOARD_KEYS = {
  [0x21] = "voice down", [0x11] = "right down", [0x41] = "navigation", [0x51] = "screenshot", [0x65] = "battery low",
}
local FORMER = {
  [0x0D8C0132] = {name = "older mouse", key_at = 3, keys = FORMER_MOUSE_KEYS},
  [0x0D8C0135] = {name = "voice keyboard", key_at = 2, keys = FORMER_KEYBOARD_KEYS},
}
local FORMER_REPORT = 8

local MODEL_OF_ID, MODEL_OF_ANSWER = {}, {}
for _, model in ipairs(MODELS) do
  for _, id in ipairs(model.ids) do MODEL_OF_ID[id] = model end
  if model.identify then MODEL_OF_ANSWER[model.identify] = model end
end

-- A report, and the payload of the frame in it. Bytes that are not there count as zero, as in the library. ------------

local Report = {}
Report.__index = Report

-- `start`: where byte 0 of the report stands in `tvb`; -1 where the report id is told by `id` alone.
function Report.new(tvb, start, id) return setmetatable({tvb = tvb, start = start, id = id}, Report) end

function Report:size() return self.tvb:len() - self.start end

function Report:is_cut() return self.tvb:reported_len() > self.tvb:len() end

function Report:byte(at)
  if at == 0 and self.id then return self.id end
  local place = at + self.start
  if place < 0 or place >= self.tvb:len() then return 0 end
  return self.tvb(place, 1):uint()
end

function Report:starts(...)
  for at, byte in ipairs({...}) do
    if self:byte(at - 1) ~= byte then return false end
  end
  return true
end

-- So much of it as is there; nil when nothing is.
function Report:range(at, count)
  local from = math.max(at + self.start, 0)
  count = math.min(count, self.tvb:len() - from)
  return count > 0 and self.tvb(from, count) or nil
end

local Payload = {}
Payload.__index = Payload

function Payload.new(report, from, count)
  return setmetatable({report = report, from = from, count = count}, Payload)
end

function Payload:byte(at) return at < self.count and self.report:byte(self.from + at) or 0 end
function Payload:word(at) return self:byte(at) * 256 + self:byte(at + 1) end
function Payload:low_word(at) return self:byte(at) + self:byte(at + 1) * 256 end
function Payload:long(at) return self:word(at) * 65536 + self:word(at + 2) end
function Payload:range(at, count)
  count = math.min(count, self.count - at)
  return count > 0 and self.report:range(self.from + at, count) or nil
end

-- Checksums -----------------------------------------------------------------------------------------------------------

-- Not every Lua has the operator, and not every one a library for it.
local function xor(a, b)
  local result, place = 0, 1
  while a > 0 or b > 0 do
    if a % 2 ~= b % 2 then result = result + place end
    a, b, place = math.floor(a / 2), math.floor(b / 2), place * 2
  end
  return result
end

local CRC_OF_BYTE = {}
for byte = 0, 255 do
  local crc = byte
  for _ = 1, 8 do
    crc = crc % 2 == 1 and xor(math.floor(crc / 2), 0xA001) or math.floor(crc / 2)
  end
  CRC_OF_BYTE[byte] = crc
end

-- CRC-16/MODBUS.
local function crc_of(payload, from, count)
  local crc = 0xFFFF
  for at = from, from + count - 1 do
    crc = xor(math.floor(crc / 256), CRC_OF_BYTE[xor(crc % 256, payload:byte(at))])
  end
  return crc
end

-- Payloads ------------------------------------------------------------------------------------------------------------
-- In what follows: p, the payload; tree, where its fields go; note, what is known of this packet from those before it.

-- What the status says; tells the expert of anything but 0.
local function status_at(at, word)
  return function(p, tree)
    local status = p:byte(at)
    if status == 0 then return word end
    tree:add_proto_expert_info(E.refused, ("Refused (%d)"):format(status))
    return ("refused (%d)"):format(status)
  end
end

local USAGES = {[0x27] = "0", [0x2D] = "-", [0x2E] = "=", [0x37] = ".", [0x38] = "/"}
for i = 0, 25 do USAGES[0x04 + i] = string.char(("a"):byte() + i) end
for i = 1, 9 do USAGES[0x1D + i] = tostring(i) end

local function url(p, tree)
  local text = {}
  for at = 0, p.count - 1 do text[#text + 1] = USAGES[p:byte(at)] or "?" end
  text = table.concat(text)
  local range = p:range(0, p.count)
  if range then tree:add(F.url, range, text) end
  return text
end

local function printable(byte)
  return byte >= 0x20 and byte < 0x7F and string.char(byte) or ("\\x%02x"):format(byte)
end

local function key(p, tree, note)
  local character = printable(p:byte(0))
  local action = note.model and (note.model.keys[character] or "no key of this model")
  tree:add(F.key, p:range(0, 1), character)
  if not action then return ("'%s'"):format(character) end
  tree:add(F.key_action, p:range(0, 1), action):set_generated()
  return ("'%s' %s"):format(character, action)
end

local function serial(p, tree)
  local text, plain = {}, true
  for at = 0, p.count - 1 do
    text[#text + 1] = printable(p:byte(at))
    plain = plain and text[#text]:match("^%w$")
  end
  text = table.concat(text)
  tree:add(F.serial, p:range(0, p.count), text)
  if not plain then tree:add_proto_expert_info(E.ignored, "Not letters and digits only: the host ignores it") end
  return text
end

local function mouse_state(p) return ("DPI %d, battery %d %%"):format(p:word(2), p:byte(4)) end

local function dongle_state(p)
  return ("0x%04x, flag %s"):format(p:word(0), p:byte(2) == 1 and "set" or "clear")
end

local function mkey_function(p)
  local number = p:byte(0)
  return M_KEY_FUNCTIONS[number] or tostring(number)
end

local function mkeys(p, tree)
  local supported = {}
  for at = 1, p.count - 1 do
    tree:add(F.mkey_supported, p:range(at, 1))
    supported[#supported + 1] = p:byte(at)
  end
  return ("%s, supports %s"):format(mkey_function(p), table.concat(supported, " "))
end

local function identified(_, _, note) return note.answerer and note.answerer.name end

local function image_part(p, tree)
  local range = p:range(0, p.count)
  if range then tree:add(F.ota_data, range) end
  return ("%d bytes"):format(p.count)
end

local BLOCK = 16
local CHECKED_BLOCK = 2 + BLOCK + 2

local function checked_block(p, tree, at)
  local index, told = p:low_word(at), p:low_word(at + 2 + BLOCK)
  local calculated = crc_of(p, at, 2 + BLOCK)
  tree:add_le(F.ota_block, p:range(at, 2))
  tree:add(F.ota_data, p:range(at + 2, BLOCK))
  local crc = tree:add_le(F.ota_crc, p:range(at + 2 + BLOCK, 2))
  tree:add(F.ota_crc_status, calculated == told and 1 or 0):set_generated()
  if calculated == told then return tostring(index) end
  crc:add_proto_expert_info(E.crc, ("The checksum of block %d is 0x%04x, not 0x%04x"):format(index, calculated, told))
  return index .. " (wrong checksum)"
end

local function is_blank(p, at, count)
  for i = at, at + count - 1 do
    if p:byte(i) ~= 0xFF then return false end
  end
  return true
end

local function checked_blocks(p, tree)
  local first = checked_block(p, tree, 0)
  if is_blank(p, CHECKED_BLOCK, CHECKED_BLOCK) then return "block " .. first end
  return ("blocks %s, %s"):format(first, checked_block(p, tree, CHECKED_BLOCK))
end

local function plain_block(p, tree)
  tree:add_le(F.ota_block, p:range(0, 2))
  local range = p:range(2, p.count - 2)
  if range then tree:add(F.ota_data, range) end
  return ("block %d"):format(p:low_word(0))
end

local function ota_data(p, tree, note)
  if note.firmware == "Zh" and p.count == 2 * CHECKED_BLOCK then return checked_blocks(p, tree) end
  if note.firmware == "standard" and p.count >= 2 then return plain_block(p, tree) end
  local text = image_part(p, tree)
  if note.firmware ~= "Tern" or not note.wanted then return text end
  tree:add(F.ota_offset, note.wanted):set_generated()
  return ("%s at %d"):format(text, note.wanted)
end

-- A Tern wants bytes.
local function ota_bytes(p, tree)
  tree:add(F.ota_offset, p:range(0, 4))
  tree:add(F.ota_count, p:range(4, 1))
  tree:add(F.status, p:range(5, 1))
  return status_at(5, ("wants %d bytes at %d"):format(p:byte(4), p:long(0)))(p, tree)
end

local function ota_open_reply(p, tree)
  if p.count == 6 then return ota_bytes(p, tree) end
  tree:add(F.status, p:range(0, 1))
  return status_at(0, "goes on")(p, tree)
end

local function ota_data_reply(p, tree)
  if p.count == 6 then return ota_bytes(p, tree) end
  tree:add(F.status, p:range(0, 1))
  tree:add_le(F.ota_next, p:range(1, 2))
  local index = p:low_word(1)
  return status_at(0, index == 0 and "has everything" or ("wants block %d"):format(index))(p, tree)
end

-- The catalogue -------------------------------------------------------------------------------------------------------
-- sizes: of the payload; none: any. least: its least size. fields: field, offset, size. say: adds what no row can say,
-- and gives the words for the summary. answer, within: the reply that a command waits for, and for how many seconds.

-- How long the library waits, and for what it does not wait for: as long as for the voice channel.
local VOICE, M_KEY, UPDATE, OTHER = 1.0, 2.5, 3.1, 1.0
local NONE = {0}

local function word_at(at)
  return function(p) return tostring(p:word(at)) end
end

local COMMANDS = {
  [0x01] = {name = "AppOpen", sizes = NONE},
  [0x02] = {name = "AppExit", sizes = NONE},
  [0x03] = {name = "VoiceOpen", sizes = NONE, answer = "VoiceOpenReply", within = VOICE},
  [0x04] = {name = "VoiceStop", sizes = NONE, answer = "VoiceStopReply", within = VOICE},
  [0x05] = {name = "Heartbeat", sizes = NONE, answer = "HeartbeatReply"},
  [0x06] = {name = "SetDpi", sizes = {2}, fields = {{F.dpi, 0, 2}}, say = word_at(0), answer = "DpiReply",
            within = OTHER},
  [0x07] = {name = "OtaPrepare", sizes = NONE, answer = "OtaPrepareReply", within = UPDATE},
  [0x08] = {name = "OtaOpen", say = image_part, answer = "OtaOpenReply", within = UPDATE},
  [0x09] = {name = "OtaData", say = ota_data, answer = "OtaDataReply", within = UPDATE},
  [0x0A] = {name = "OtaAbort", sizes = NONE, answer = "OtaEndReply", within = UPDATE},
  [0x0B] = {name = "OtaComplete", sizes = NONE, answer = "OtaCompleteReply", within = UPDATE},
  [0x0C] = {name = "GetMouseState", sizes = NONE, answer = "MouseStateReply", within = OTHER},
  [0x0D] = {name = "GetDongleState", sizes = NONE, answer = "DongleStateReply", within = OTHER},
  [0x0E] = {name = "SetDownloadUrl", say = url, answer = "DownloadUrlReply", within = OTHER},
  [0x0F] = {name = "Identify", sizes = {32}, fields = {{F.challenge, 0, 32}}, answer = "IdentifyReply", within = OTHER},
  [0x11] = {name = "IdentifyAck", sizes = NONE},
  [0x14] = {name = "GetMKeyTypeList", sizes = NONE, answer = "MKeyTypeReply", within = OTHER},
  [0x15] = {name = "SetMKeyType", sizes = {1}, fields = {{F.mkey_function, 0, 1}}, say = mkey_function,
            answer = "MKeyTypeReply", within = M_KEY},
}

local STATUS = {{F.status, 0, 1}}

local REPLIES = {
  [0x68] = {name = "HeartbeatReply"},
  [0x69] = {name = "DeviceConnectReply", sizes = {1}, fields = {{F.connection, 0, 1}},
            say = function(p) return tostring(p:byte(0)) end},
  [0x6A] = {name = "VoiceOpenReply", sizes = {1}, fields = STATUS, say = status_at(0, "open")},
  [0x6B] = {name = "VoiceStopReply"},
  [0x6F] = {name = "DevicePowerReply", sizes = {1}, fields = {{F.battery, 0, 1}},
            say = function(p) return p:byte(0) .. " %" end},
  [0x96] = {name = "DpiReply", sizes = {3}, fields = {{F.dpi, 0, 2}, {F.status, 2, 1}},
            say = function(p, tree) return p:word(0) .. " " .. status_at(2, "applied")(p, tree) end},
  [0x97] = {name = "OtaPrepareReply", sizes = {1}, fields = STATUS, say = status_at(0, "goes on")},
  [0x98] = {name = "OtaOpenReply", sizes = {1, 6}, say = ota_open_reply},
  [0x99] = {name = "OtaDataReply", sizes = {3, 6}, say = ota_data_reply},
  [0x9A] = {name = "OtaEndReply", sizes = {1}, fields = STATUS},
  [0x9B] = {name = "OtaCompleteReply", sizes = {1}, fields = STATUS, say = status_at(0, "accepted")},
  [0x9C] = {name = "MouseStateReply", sizes = {11}, say = mouse_state,
            fields = {{F.state, 0, 2}, {F.dpi, 2, 2}, {F.battery, 4, 1}, {F.address, 5, 6}}},
  [0x9D] = {name = "DongleStateReply", sizes = {3, 9}, say = dongle_state,
            fields = {{F.dongle_state, 0, 2}, {F.dongle_flag, 2, 1}, {F.dongle_ignored, 3, 6}}},
  [0x9E] = {name = "DownloadUrlReply", sizes = {1}, fields = STATUS, say = status_at(0, "accepted")},
  [0x9F] = {name = "MouseKeyReply", sizes = {1}, say = key},
  [0xB1] = {name = "MouseSNReply", sizes = {18}, say = serial},
  [0xB3] = {name = "MKeyTypeReply", least = 2, fields = {{F.mkey_function, 0, 1}}, say = mkeys},
}
for code in pairs(MODEL_OF_ANSWER) do
  REPLIES[code] = {name = "IdentifyReply", sizes = {32}, fields = {{F.challenge, 0, 32}}, say = identified}
end

local function entry_of(code, sent) return (sent and COMMANDS or REPLIES)[code] end

local function takes(entry, count)
  if not entry.sizes then return count >= (entry.least or 0) end
  for _, size in ipairs(entry.sizes) do
    if size == count then return true end
  end
  return false
end

-- Parsing, as the library does it -------------------------------------------------------------------------------------

local COMMAND_REPORT, TERN_SPEECH_REPORT, WREN_SPEECH_REPORT = 0x05, 0x1A, 0x1B
local WREN_SPEECH_MARK = 0xAD
local TERN_SPEECH, SBC_FRAME, SBC_FRAMES = 40, 20, 3
local WREN_SPEECH = SBC_FRAMES * SBC_FRAME
local MAGIC, MAGIC2, PREFIX, PREFIX_DEVICE, PREFIX_RECEIVER, END = 0xFE, 0xC0, 0xFF, 0xF1, 0xF0, 0xEF
local BLUETOOTH, USB, RECEIVER = "Bluetooth LE", "USB", "receiver"

local function damaged(why) return {kind = "damaged", damage = why} end

local function parse_body(report, at, prefix)
  if report:byte(at + 1) ~= MAGIC2 then return damaged("the magic is not FE C0") end
  local count = report:byte(at + 3)
  local frame = {kind = "frame", prefix = prefix, magic_at = at, code = report:byte(at + 2), end_at = at + 4 + count}
  if frame.end_at >= report:size() and report:is_cut() then
    frame.cut = true
  elseif report:byte(frame.end_at) ~= END then
    frame.damage = ("no end marker at byte %d"):format(frame.end_at)
  end
  frame.payload = Payload.new(report, at + 4, count)
  return frame
end

local function parse_command_report(report)
  if report:byte(1) == MAGIC then return parse_body(report, 1) end
  if report:byte(1) ~= PREFIX then return damaged("neither a prefix nor the magic after the report id") end
  local prefix = report:byte(2)
  if prefix ~= PREFIX_DEVICE and prefix ~= PREFIX_RECEIVER then
    return damaged(("an unknown prefix, FF %02X"):format(prefix))
  end
  if report:byte(3) ~= MAGIC then return damaged("no magic after the prefix") end
  return parse_body(report, 3, prefix)
end

local function parse_speech(report, codec, from, count)
  local speech = {kind = "speech", codec = codec, from = from}
  if report:size() < from + count then
    if report:is_cut() then
      speech.cut = true
    else
      speech.damage = ("%d bytes instead of %d: the host takes the rest for zeros"):format(report:size(), from + count)
    end
  end
  return speech
end

-- `link`: that of the interface, where it is known.
local function parse(report, sent, link)
  local id = report:byte(0)
  if not sent then
    if id == WREN_SPEECH_REPORT or report:starts(COMMAND_REPORT, WREN_SPEECH_MARK) then
      return parse_speech(report, "SBC", 2, WREN_SPEECH)
    end
    if id == TERN_SPEECH_REPORT then
      if link == BLUETOOTH then return parse_speech(report, "Tern", 1, TERN_SPEECH) end
      if report:starts(id, PREFIX, PREFIX_DEVICE) then return parse_speech(report, "Tern", 3, TERN_SPEECH) end
      return damaged("speech without the prefix FF F1")
    end
  end
  if id == COMMAND_REPORT then return parse_command_report(report) end
  return {kind = "other"}
end

local function parse_former(report, former)
  local frame = {kind = "former", former = former}
  if report:size() <= former.key_at then frame.damage = "too short for its key byte" end
  return frame
end

-- What is known of a device from the packets so far. ------------------------------------------------------------------
-- It is learnt when a packet is seen for the first time, since then packets come in their order. What the packet needs
-- of it later is kept in its note.

local peers, ids, notes, lost, in_order

local function forget()
  in_order = false  -- whether the first pass has had fields to learn from
  peers = {}  -- by source
  ids = {}    -- vendor and product, by source: of any device
  notes = {}  -- by packet number
  lost = {}   -- requests, by packet number: no answer came in time
end
voxmouse.init = forget
forget()

-- Queues of requests, by the reply that they wait for and whether it is to come from the receiver.
local function peer_of(source)
  local peer = peers[source.key]
  if not peer then
    peer = {waiting = {}, late = {}}
    peers[source.key] = peer
  end
  return peer
end

local function queue_of(frame, name) return (frame.prefix == PREFIX_RECEIVER and "receiver " or "device ") .. name end

local function give_up(request, note)
  lost[request.number] = request
  note.lost[#note.lost + 1] = request
end

-- Notices, at this packet, which answers have not come in time.
local function expire(now, note)
  for _, peer in pairs(peers) do
    for kind, queue in pairs(peer.waiting) do
      while queue[1] and queue[1].within and now > queue[1].time + queue[1].within do
        peer.late[kind] = table.remove(queue, 1)
        give_up(peer.late[kind], note)
      end
    end
  end
  table.sort(note.lost, function(a, b) return a.number < b.number end)
end

-- Whether the device has to answer: not the completion that ends an update that is done, and over Bluetooth LE there is
-- no receiver.
local function must_answer(peer, source, frame, entry)
  if entry.name == "OtaComplete" and peer.image_done then return false end
  return not (frame.prefix == PREFIX_RECEIVER and source.link == BLUETOOTH)
end

local function await(peer, source, frame, entry, note, pinfo)
  if not entry.answer or not must_answer(peer, source, frame, entry) then return end
  local kind = queue_of(frame, entry.answer)
  local queue = peer.waiting[kind] or {}
  peer.waiting[kind], peer.late[kind] = queue, nil
  note.request = {number = pinfo.number, time = pinfo.abs_ts, answer = entry.answer, within = entry.within}
  queue[#queue + 1] = note.request
  -- A heartbeat has been lost when two more have brought no answer.
  if not entry.within and #queue > 2 then give_up(table.remove(queue, 1), note) end
end

local function answered(peer, frame, entry, note, pinfo)
  local kind = queue_of(frame, entry.name)
  local queue = peer.waiting[kind] or {}
  local heartbeats = queue[1] and not queue[1].within
  local request = table.remove(queue, heartbeats and #queue or 1) or peer.late[kind]
  if heartbeats then peer.waiting[kind] = nil end
  peer.late[kind] = nil
  if not request then return end
  request.answered_in = pinfo.number
  note.answers = request
  note.delay = math.max(pinfo.abs_ts - request.time, 0)
end

local function learn_model(peer, frame, note)
  local model = MODEL_OF_ANSWER[frame.code]
  note.answerer = model
  if not model or frame.payload.count ~= 32 then return end
  if not note.model or note.model.firmware == model.firmware then
    peer.model, note.model = model, model
  end
end

-- How an update goes where the model is not known.
local function learn_flow(peer, name, payload)
  if name == "OtaPrepare" then
    peer.flow = "Tern"
  elseif name == "OtaOpen" and not (peer.flow == "Tern" and peer.last == "OtaPrepare") then
    peer.flow = payload.count > BLOCK and "Zh" or "standard"
  end
end

local IMAGE_STEPS = {OtaPrepare = true, OtaOpen = true, OtaData = true, OtaComplete = true}

local function follow_sent(peer, source, frame, entry, note, pinfo)
  peer.last_sent = pinfo.number
  learn_flow(peer, entry.name, frame.payload)
  await(peer, source, frame, entry, note, pinfo)
  if IMAGE_STEPS[entry.name] then
    peer.image_done = false
    peer.last = entry.name
  end
end

local function follow_received(peer, frame, entry, note, pinfo)
  local p = frame.payload
  learn_model(peer, frame, note)
  answered(peer, frame, entry, note, pinfo)
  if entry.name == "OtaCompleteReply" and p.count == 1 then peer.image_done = p:byte(0) == 0 end
  if entry.name == "OtaDataReply" and p.count == 3 then peer.image_done = p:byte(0) == 0 and p:low_word(1) == 0 end
  if (entry.name == "OtaOpenReply" or entry.name == "OtaDataReply") and p.count == 6 then peer.wanted = p:long(0) end
end

-- The report that was sent last to this interface has not been taken: no answer is due.
local function withdraw(peer, note)
  note.unwritten, peer.last_sent = peer.last_sent, nil
  for _, queue in pairs(peer.waiting) do
    if queue[#queue] and queue[#queue].number == note.unwritten then table.remove(queue) end
  end
end

local function link_of(peer, source, frame, sent)
  if frame.prefix == PREFIX_RECEIVER then return RECEIVER end
  if frame.kind ~= "frame" or sent then return source.link or peer.link end
  peer.link = frame.prefix and USB or BLUETOOTH
  return peer.link
end

local function follow(peer, source, frame, sent, pinfo)
  local note = {lost = {}, model = peer.model or MODEL_OF_ID[source.id], sent = sent}
  expire(pinfo.abs_ts, note)
  note.link = link_of(peer, source, frame, sent)
  local entry = frame.kind == "frame" and not frame.damage and not frame.cut and entry_of(frame.code, sent)
  if entry and takes(entry, frame.payload.count) then
    note.wanted = peer.wanted
    if sent then
      follow_sent(peer, source, frame, entry, note, pinfo)
    else
      follow_received(peer, frame, entry, note, pinfo)
    end
  end
  note.firmware = note.model and note.model.firmware or peer.flow
  return note
end

-- Showing -------------------------------------------------------------------------------------------------------------

local function show_rows(entry, payload, tree)
  for _, row in ipairs(entry.fields or {}) do
    local field, at, size = row[1], row[2], row[3]
    if at + size <= payload.count then tree:add(field, payload:range(at, size)) end
  end
end

-- Gives the words for the summary.
local function show_payload(entry, payload, tree, note)
  if not takes(entry, payload.count) then
    local words = ("of length %d"):format(payload.count)
    tree:add_proto_expert_info(E.ignored, ("%s %s: ignored by its receiver"):format(entry.name, words))
    return words
  end
  show_rows(entry, payload, tree)
  return entry.say and entry.say(payload, tree, note)
end

local function add(tree, field, range)
  if range then tree:add(field, range) end
end

local function show_frame(report, frame, tree, note)
  local payload, at = frame.payload, frame.magic_at
  local entry = entry_of(frame.code, note.sent)
  local name = entry and entry.name or ("unknown code 0x%02x"):format(frame.code)
  if frame.prefix then add(tree, F.prefix, report:range(1, 2)) end
  add(tree, F.magic, report:range(at, 2))
  add(tree, F.code, report:range(at + 2, 1))
  tree:add(F.name, name):set_generated()
  add(tree, F.length, report:range(at + 3, 1))
  local range = payload:range(0, payload.count)
  local body = range and tree:add(F.payload, range) or tree
  if frame.damage or frame.cut then return name end
  add(tree, F.end_marker, report:range(frame.end_at, 1))
  if not entry then
    tree:add_proto_expert_info(E.other, ("The protocol has no code 0x%02x"):format(frame.code))
    return name
  end
  local words = show_payload(entry, payload, body, note)
  return words and name .. " " .. words or name
end

local function show_sbc(report, from, tree)
  for i = 0, SBC_FRAMES - 1 do
    local at = from + i * SBC_FRAME
    local range = report:range(at, SBC_FRAME)
    if not range then return end
    local item = tree:add(F.sbc_frame, range)
    add(item, F.sbc_crc, report:range(at, 1))
    add(item, F.sbc_scale_factors, report:range(at + 1, 4))
  end
end

local function show_speech(report, speech, tree)
  tree:add(F.name, "Speech"):set_generated()
  if speech.codec == "SBC" then
    show_sbc(report, speech.from, tree)
    return ("Speech, %d SBC frames"):format(SBC_FRAMES)
  end
  add(tree, F.codec_packet, report:range(speech.from, TERN_SPEECH))
  return "Speech, a packet of the Tern's codec"
end

local function show_former(report, frame, tree)
  local former = frame.former
  local range = report:range(former.key_at, 1)
  tree:add(F.name, "KeyReport"):set_generated()
  if not range then return "KeyReport" end
  local action = former.keys[report:byte(former.key_at)] or "all up"
  tree:add(F.key_byte, range)
  tree:add(F.key_action, range, action):set_generated()
  return "KeyReport " .. action
end

local function show_other(report, _, tree)
  tree:add_proto_expert_info(E.other, "Not a report of the protocol")
  return ("report 0x%02x"):format(report:byte(0))
end

local SHOW = {
  frame = show_frame, speech = show_speech, former = show_former, other = show_other,
  damaged = function() return "report" end,
}

local function show_request(request, tree)
  if request.answered_in then tree:add(F.response_in, request.answered_in):set_generated() end
end

local function show_answer(note, tree)
  local microseconds = math.floor(note.delay * 1e6 + 0.5)
  tree:add(F.response_to, note.answers.number):set_generated()
  local delay = NSTime.new(math.floor(microseconds / 1000000), microseconds % 1000000 * 1000)
  tree:add(F.time, delay):set_generated()
end

local function bound_of(request)
  return request.within and ("within %g s"):format(request.within) or "before the next two heartbeats"
end

-- At first the future is not known: there the warning stands at the packet that shows that no answer came, later at the
-- request.
local function show_lost(note, tree, pinfo)
  local mine = lost[pinfo.number]
  if note.seen and mine then
    tree:add_proto_expert_info(E.no_answer, ("No %s %s"):format(mine.answer, bound_of(mine)))
  end
  for _, request in ipairs(note.lost) do
    local item = tree:add(F.unanswered, request.number):set_generated()
    if not note.seen then
      local text = ("No %s to packet %d %s"):format(request.answer, request.number, bound_of(request))
      item:add_proto_expert_info(E.no_answer, text)
    end
  end
end

local function show_links(note, tree, pinfo)
  if note.request then show_request(note.request, tree) end
  if note.answers then show_answer(note, tree) end
  show_lost(note, tree, pinfo)
  note.seen = true
end

local function summary(words, frame, note)
  local arrow = note.sent and "->" or "<-"
  local link = note.link and (note.sent or note.link == RECEIVER) and (" (%s)"):format(note.link) or ""
  local damage = frame.damage and (", damaged: %s"):format(frame.damage) or ""
  return ("%s %s%s%s"):format(arrow, words, link, damage)
end

local function show_experts(frame, tree)
  if frame.damage then tree:add_proto_expert_info(E.damaged, "Damaged: " .. frame.damage) end
  if frame.cut then tree:add_proto_expert_info(E.cut) end
end

local function show(report, frame, note, pinfo, root)
  local tree = root:add(voxmouse, report:range(0, report:size()))
  tree:add(F.direction, note.sent and "sent" or "received"):set_generated()
  if note.link then tree:add(F.link, note.link):set_generated() end
  if frame.former or note.model then tree:add(F.model, (frame.former or note.model).name):set_generated() end
  if report.id then
    tree:add(F.report_id, report.id):set_generated()
  else
    add(tree, F.report_id, report:range(0, 1))
  end
  local text = summary(SHOW[frame.kind](report, frame, tree, note), frame, note)
  show_experts(frame, tree)
  show_links(note, tree, pinfo)
  tree:append_text(": " .. text)
  pinfo.cols.protocol = "VoxMouse"
  pinfo.cols.info = text
  return tree
end

-- Where packets come from ---------------------------------------------------------------------------------------------
-- A source: key, of the device that it belongs to; report; id, vendor and product where they are known; link of the
-- interface, where it is known; former, of an older device; facts, what the recorder says of it.

local function reader(name)
  local field = Field.new(name)
  return function()
    local info = field()
    return info and info.value
  end
end

local frame_number = reader("frame.number")
local frame_interface = reader("frame.interface_id")
local frame_interface_name = reader("frame.interface_name")
local frame_description = reader("frame.interface_description")
local frame_comments = Field.new("frame.comment")
local pdu_name = Field.new("exported_pdu.prot_name")
local usb_bus, usb_device = reader("usb.bus_id"), reader("usb.device_address")
local usb_transfer = reader("usb.transfer_type")
local usb_vendor, usb_product = reader("usb.idVendor"), reader("usb.idProduct")
local att_handle = reader("btatt.handle")
local att_vendor, att_product = reader("btatt.pnp_id.vendor_id"), reader("btatt.pnp_id.product_id")
local acl_connection = reader("bthci_acl.chandle")

local function usb_key()
  local bus, device = usb_bus(), usb_device()
  return device and ("usb %s %s.%s"):format(frame_interface() or 0, bus or 0, device)
end

local USB_INTERRUPT, USB_CONTROL = 1, 2
local SET_REPORT, OUTPUT_REPORT, SETUP = 0x09, 0x02, 7  -- the request's type is not handed on

-- The report of an interrupt transfer, or of a SET_REPORT; nil when it is something else.
local function usb_report(tvb)
  local transfer = usb_transfer()
  if transfer == USB_INTERRUPT then return Report.new(tvb, 0) end
  if transfer ~= USB_CONTROL or tvb:len() <= SETUP then return nil end
  local setup = Report.new(tvb, 0)
  if setup:byte(0) ~= SET_REPORT or setup:byte(2) ~= OUTPUT_REPORT then return nil end
  return Report.new(tvb, SETUP)
end

local function usb_source(tvb)
  local key = usb_key()
  local report = key and usb_report(tvb)
  if not report then return nil end
  local id = ids[key]
  return {key = key, report = report, link = USB, id = id, former = FORMER[id]}
end

local function att_key() return ("att %s %s"):format(frame_interface() or 0, acl_connection() or 0) end

-- The report id is not in the value of a characteristic. Speech is told by its length.
local function att_report(tvb)
  local value = Report.new(tvb, 0)
  local size = tvb:len()
  if value:starts(MAGIC, MAGIC2) or value:starts(PREFIX) or (value:starts(WREN_SPEECH_MARK) and size > WREN_SPEECH) then
    return Report.new(tvb, -1, COMMAND_REPORT)
  end
  if size == TERN_SPEECH then return Report.new(tvb, -1, TERN_SPEECH_REPORT) end
  if size == WREN_SPEECH + 1 then return Report.new(tvb, -1, WREN_SPEECH_REPORT) end
  return nil
end

local function att_source(tvb)
  local report = att_report(tvb)
  if not report then return nil end
  local key = att_key()
  return {key = key, report = report, link = BLUETOOTH, id = ids[key]}
end

local LINKS = {usb = USB, ble = BLUETOOTH, receiver = RECEIVER}

-- Pairs key=value; "text=" takes the rest.
local function facts_of(text)
  local facts = {}
  local head, rest = (" " .. text):match("^(.-) text=(.*)$")
  facts.text = rest
  for name, value in (head or text):gmatch("(%w+)=(%S*)") do facts[name] = value end
  return facts
end

local function comment_facts()
  for _, info in ipairs({frame_comments()}) do
    local facts = facts_of(info.value)
    if facts.device then return facts end
  end
  return {}
end

local function pdu_source(tvb)
  local about, facts = facts_of(frame_description() or ""), comment_facts()
  local id = tonumber((about.vid or "") .. (about.pid or ""), 16)
  return {
    -- By its name: an interface is described again when more is known of it.
    key = "pdu " .. tostring(frame_interface_name() or frame_interface()),
    report = Report.new(tvb, 0),
    link = LINKS[about.link],
    id = id,
    former = FORMER[id],
    facts = facts,
  }
end

-- Events of the recorder that have no report --------------------------------------------------------------------------

local FACTS = {
  {"device", F.device, -0x80000000, 0x7FFFFFFF}, {"thread", F.thread, 0, 0xFFFFFFFF}, {"tick", F.tick, 0, 0xFFFFFFFF},
  {"error", F.event_error, 0, 0xFFFFFFFF},
}

local function show_facts(facts, tree)
  for _, row in ipairs(FACTS) do
    local value = (facts[row[1]] or ""):match("^%-?%d+$")
    local number = value and tonumber(value)
    if number and number >= row[3] and number <= row[4] then tree:add(row[2], number):set_generated() end
  end
  if facts.event then tree:add(F.event, facts.event):set_generated() end
  if facts.values then tree:add(F.event_values, facts.values):set_generated() end
  if facts.text then tree:add(F.event_text, facts.text):set_generated() end
end

local function event_words(facts)
  local words = facts.event or "nothing"
  if facts.values then words = words .. " " .. facts.values end
  if facts.error then words = words .. ", error " .. facts.error end
  return facts.text and ("%s: %s"):format(words, facts.text) or words
end

local function follow_event(source, pinfo)
  local note = {lost = {}}
  expire(pinfo.abs_ts, note)
  if source.facts.event == "write-failed" then withdraw(peer_of(source), note) end
  return note
end

local function show_event(source, pinfo, root)
  local note = notes[pinfo.number] or follow_event(source, pinfo)
  notes[pinfo.number] = note
  local tree = root:add(voxmouse)
  local text = event_words(source.facts)
  tree:append_text(": " .. text)
  show_facts(source.facts, tree)
  if note.unwritten then
    local item = tree:add(F.unwritten, note.unwritten):set_generated()
    item:add_proto_expert_info(E.unwritten, ("Packet %d could not be written"):format(note.unwritten))
  end
  show_links(note, tree, pinfo)
  pinfo.cols.protocol = "VoxMouse"
  pinfo.cols.info = text
end

-- Entries -------------------------------------------------------------------------------------------------------------

-- Where the capture does not tell the direction, the code does.
local function is_sent(report, pinfo)
  if pinfo.p2p_dir == P2P_DIR_SENT or pinfo.p2p_dir == P2P_DIR_RECV then return pinfo.p2p_dir == P2P_DIR_SENT end
  local frame = parse(report, true)
  return frame.kind == "frame" and COMMANDS[frame.code] ~= nil
end

local function dissect(source, pinfo, tree)
  local peer, report = peer_of(source), source.report
  local note = notes[pinfo.number]
  local sent
  if note then sent = note.sent else sent = is_sent(report, pinfo) end
  local frame = source.former and not sent and parse_former(report, source.former) or parse(report, sent, source.link)
  if not note then
    note = follow(peer, source, frame, sent, pinfo)
    notes[pinfo.number] = note
  end
  return show(report, frame, note, pinfo, tree)
end

local OWN_REPORTS = {[COMMAND_REPORT] = true, [TERN_SPEECH_REPORT] = true, [WREN_SPEECH_REPORT] = true}

local function has_form(report)
  return report:starts(COMMAND_REPORT, MAGIC, MAGIC2) or
    report:starts(COMMAND_REPORT, PREFIX, PREFIX_DEVICE, MAGIC, MAGIC2) or
    report:starts(COMMAND_REPORT, PREFIX, PREFIX_RECEIVER, MAGIC, MAGIC2)
end

-- A device has other reports, too: those of an ordinary mouse.
local function is_ours(source)
  if source.former then return source.report:size() >= FORMER_REPORT end
  if has_form(source.report) then return true end
  return (MODEL_OF_ID[source.id] or peers[source.key]) and OWN_REPORTS[source.report:byte(0)]
end

-- What was ours in the first pass is ours in every one, whatever has been learnt since.
local function claim(source, pinfo, tree)
  if not source then return false end
  if not notes[pinfo.number] and (pinfo.visited and in_order or not is_ours(source)) then return false end
  dissect(source, pinfo, tree)
  return true
end

local function dissect_pdu(tvb, pinfo, tree)
  local source = pdu_source(tvb)
  if tvb:len() == 0 then
    show_event(source, pinfo, tree)
  else
    show_facts(source.facts, dissect(source, pinfo, tree))
  end
  return tvb:len()
end

local function is_foreign(source) return source and source.id and not MODEL_OF_ID[source.id] and not source.former end

-- A device of which the capture may not tell the product.
local function guess(source, pinfo, tree) return not is_foreign(source) and claim(source, pinfo, tree) end

local function guess_usb(tvb, pinfo, tree) return guess(usb_source(tvb), pinfo, tree) end

-- Called for our link type, for our products, for every report of HID over GATT, and where the user says so. Without
-- fields, as in the first pass of tshark -2, nothing can be said.
function voxmouse.dissector(tvb, pinfo, tree)
  if pdu_name() then return dissect_pdu(tvb, pinfo, tree) end
  local ours = false
  if usb_transfer() then
    ours = claim(usb_source(tvb), pinfo, tree)
  elseif att_handle() then
    ours = guess(att_source(tvb), pinfo, tree)
  end
  return ours and tvb:len() or 0
end

voxmouse:register_heuristic("usb.interrupt", guess_usb)
voxmouse:register_heuristic("usb.control", guess_usb)

local products = DissectorTable.get("usb.product")
for id in pairs(MODEL_OF_ID) do products:add(id, voxmouse) end
for id in pairs(FORMER) do products:add(id, voxmouse) end

DissectorTable.get("usb.device"):add_for_decode_as(voxmouse)
DissectorTable.get("bluetooth.uuid"):add("2a4d", voxmouse)
DissectorTable.get("btatt.handle"):add_for_decode_as(voxmouse)

-- Who a device is is told in packets that are nobody's reports, and read after everybody else has read them.
local watch = Proto("voxmouse_watch", "VoxMouse, identifiers of devices")

local function learn_id(key, vendor, product)
  local id = vendor * 65536 + product
  if ids[key] == id then return end
  ids[key], peers[key] = id, nil
end

function watch.dissector(_, pinfo)
  if pinfo.visited and in_order or not frame_number() then return end
  in_order = not pinfo.visited
  local usb, att = usb_vendor() and usb_product() and usb_key(), att_vendor() and att_product()
  if usb then learn_id(usb, usb_vendor(), usb_product()) end
  if att then learn_id(att_key(), att_vendor(), att_product()) end
end
register_postdissector(watch)
