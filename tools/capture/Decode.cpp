#include "tools/capture/Decode.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "hid/HidFrame.h"
#include "support/Text.h"

namespace capture {
namespace {

using Payload = std::span<const std::uint8_t>;

int word(Payload bytes, std::size_t at) { return bytes[at] << 8 | bytes[at + 1]; }
int littleWord(Payload bytes, std::size_t at) { return bytes[at] | bytes[at + 1] << 8; }

std::string number(int value) { return std::to_string(value); }

std::string status(std::uint8_t value) { return value == 0 ? "done" : "refused with status " + number(value); }

std::string printable(Payload bytes) {
  std::string text;
  for (const std::uint8_t byte : bytes) {
    text += byte >= 0x20 && byte < 0x7F ? std::string(1, static_cast<char>(byte)) : "\\x" + hexOf({&byte, 1});
  }
  return text;
}

std::string address(Payload bytes) {
  std::string text;
  for (const std::uint8_t byte : bytes) text += (text.empty() ? "" : ":") + hexOf({&byte, 1});
  return text;
}

std::string url(Payload usages) {
  std::string text;
  for (const std::uint8_t usage : usages) {
    char found = '?';
    for (const char c : std::string_view("abcdefghijklmnopqrstuvwxyz0123456789-=./")) {
      if (HidUsageOf(static_cast<std::uint8_t>(c)) == usage) found = c;
    }
    text += found;
  }
  return text;
}

// ---- What the host sends ----

struct CommandRow {
  Request request;
  std::string (*words)(Payload);  // null: the name says it all
};

std::string dpiWanted(Payload p) { return p.size() == 2 ? "DPI " + number(word(p, 0)) : ""; }
std::string byteCount(Payload p) { return number(static_cast<int>(p.size())) + " bytes"; }
std::string functionWanted(Payload p) { return p.size() == 1 ? "function " + number(p[0]) : ""; }
std::string blockSent(Payload p) {
  // Of a Tern, which takes any bytes, there is no index in them; the reply tells where they belong.
  return p.size() == 40  ? "blocks " + number(littleWord(p, 0)) + " and next"
         : p.size() >= 2 ? number(static_cast<int>(p.size())) + " bytes, " + hexOf(p.first(2)) + " ..."
                         : byteCount(p);
}

constexpr CommandRow kCommands[] = {
    {{AppOpen, "AppOpen", 0, 0, 0}, nullptr},
    {{AppExit, "AppExit", 0, 0, 0}, nullptr},
    {{VoiceOpen, "VoiceOpen", VoiceOpenReply, VoiceOpenReply, 1000}, nullptr},
    {{VoiceStop, "VoiceStop", VoiceStopReply, VoiceStopReply, 1000}, nullptr},
    {{Heartbeat, "Heartbeat", HeartbeatReply, HeartbeatReply, 1000}, nullptr},
    {{SetDpi, "SetDpi", DpiReply, DpiReply, 1000}, &dpiWanted},
    {{OtaPrepare, "OtaPrepare", OtaPrepareReply, OtaPrepareReply, 3100}, nullptr},
    {{OtaOpen, "OtaOpen", OtaOpenReply, OtaOpenReply, 3100}, &byteCount},
    {{OtaData, "OtaData", OtaDataReply, OtaDataReply, 3100}, &blockSent},
    {{OtaAbort, "OtaAbort", OtaEndReply, OtaEndReply, 3100}, nullptr},
    {{OtaComplete, "OtaComplete", OtaCompleteReply, OtaCompleteReply, 3100}, nullptr},
    {{GetMouseState, "GetMouseState", MouseStateReply, MouseStateReply, 1000}, nullptr},
    {{GetDongleState, "GetDongleState", DongleStateReply, DongleStateReply, 1000}, nullptr},
    {{SetDownloadUrl, "SetDownloadUrl", DownloadUrlReply, DownloadUrlReply, 1000}, &url},
    {{Identify, "Identify", 0xA0, 0xB0, 1000}, nullptr},
    {{IdentifyAck, "IdentifyAck", 0, 0, 0}, nullptr},
    {{GetMKeyTypeList, "GetMKeyTypeList", MKeyTypeReply, MKeyTypeReply, 1000}, nullptr},
    {{SetMKeyType, "SetMKeyType", MKeyTypeReply, MKeyTypeReply, 2500}, &functionWanted},
};

constexpr auto kRequests = [] {
  std::array<Request, std::size(kCommands)> all{};
  std::transform(std::begin(kCommands), std::end(kCommands), all.begin(), [](const auto& row) { return row.request; });
  return all;
}();

// ---- What a device sends ----

struct ReplyRow {
  std::uint8_t code;
  const char* name;
  bool (*fits)(std::size_t length);
  std::string (*words)(Payload);
  int status;  // where in the payload
};

constexpr int kNone = -1;
constexpr int kStep = -2;  // in the first byte, or in the last one of six

bool any(std::size_t) { return true; }
template <std::size_t... Lengths>
bool only(std::size_t length) {
  return ((length == Lengths) || ...);
}
bool two(std::size_t length) { return length >= 2; }

std::string connection(Payload p) { return "connection " + number(p[0]); }
std::string opened(Payload p) { return p[0] == 0 ? "open" : status(p[0]); }
std::string battery(Payload p) { return "battery " + number(p[0]) + " %"; }
std::string dpi(Payload p) { return "DPI " + number(word(p, 0)) + (p[2] == 0 ? "" : ", " + status(p[2])); }
std::string step(Payload p) { return status(p[0]); }
// A status; an index and, after it, nothing; or where the next bytes come from.
std::string wanted(Payload p) {
  if (p.size() == 1) return step(p);
  if (p.size() == 3) {
    const int index = littleWord(p, 1);
    return p[0] != 0 ? status(p[0]) : index == 0 ? "has everything" : "wants block " + number(index);
  }
  if (p[5] != 0) return status(p[5]);
  return "wants " + number(p[4]) + " bytes from " +
         std::to_string(std::uint64_t(word(p, 0)) << 16 | unsigned(word(p, 2)));
}
std::string ended(Payload) { return "ended"; }
std::string mouseState(Payload p) {
  return "state " + hexOf(p.first(2)) + ", DPI " + number(word(p, 2)) + ", battery " + number(p[4]) + " %, address " +
         address(p.subspan(5));
}
std::string receiverState(Payload p) { return "state " + hexOf(p.first(2)) + (p[2] == 1 ? ", set" : ", not set"); }
std::string keyFunction(Payload p) {
  std::string text = "function " + number(p[0]) + " of";
  for (const std::uint8_t function : p.subspan(1)) text += " " + number(function);
  return text;
}

constexpr ReplyRow kReplies[] = {
    {HeartbeatReply, "HeartbeatReply", &any, nullptr, kNone},
    {DeviceConnectReply, "DeviceConnectReply", &only<1>, &connection, kNone},
    {VoiceOpenReply, "VoiceOpenReply", &only<1>, &opened, 0},
    {VoiceStopReply, "VoiceStopReply", &any, nullptr, kNone},
    {DevicePowerReply, "DevicePowerReply", &only<1>, &battery, kNone},
    {DpiReply, "DpiReply", &only<3>, &dpi, 2},
    {OtaPrepareReply, "OtaPrepareReply", &only<1>, &step, 0},
    {OtaOpenReply, "OtaOpenReply", &only<1, 6>, &wanted, kStep},
    {OtaDataReply, "OtaDataReply", &only<3, 6>, &wanted, kStep},
    {OtaEndReply, "OtaEndReply", &only<1>, &ended, kNone},
    {OtaCompleteReply, "OtaCompleteReply", &only<1>, &step, 0},
    {MouseStateReply, "MouseStateReply", &only<11>, &mouseState, kNone},
    {DongleStateReply, "DongleStateReply", &only<3, 9>, &receiverState, kNone},
    {DownloadUrlReply, "DownloadUrlReply", &only<1>, &step, 0},
    {MouseKeyReply, "MouseKeyReply", &only<1>, nullptr, kNone},
    {MouseSNReply, "MouseSNReply", &only<18>, &printable, kNone},
    {MKeyTypeReply, "MKeyTypeReply", &two, &keyFunction, kNone},
};

std::string keyWords(std::uint8_t key, const ModelSheet& model) {
  std::string name = "key '" + printable({&key, 1}) + "'";
  for (const auto& [known, action] : model.keys) {
    if (known == static_cast<char>(key)) return name + ": " + inWords(action);
  }
  return name;
}

void describeCommand(Decoded& decoded) {
  const auto* row = std::find_if(std::begin(kCommands), std::end(kCommands),
                                 [&decoded](const CommandRow& each) { return each.request.code == decoded.code; });
  if (row == std::end(kCommands)) {
    decoded.name = "command " + hexOf({&decoded.code, 1});
    return;
  }
  decoded.name = row->request.name;
  if (row->words) decoded.words = row->words(decoded.payload);
}

void describeReply(Decoded& decoded, const ModelSheet& model) {
  const Payload payload = decoded.payload;
  const auto ignored = [&] {
    decoded.form = Form::Damaged;
    decoded.words = "of " + byteCount(payload) + ", a length that is ignored";
  };
  if (const ModelSheet* named = FindByIdentifyReply(decoded.code)) {
    decoded.name = "IdentifyReply";
    decoded.words = shortName(*named);
    if (payload.size() != 32) ignored();
    return;
  }
  const auto* row = std::find_if(std::begin(kReplies), std::end(kReplies),
                                 [&decoded](const ReplyRow& each) { return each.code == decoded.code; });
  if (row == std::end(kReplies)) {
    decoded.name = "reply " + hexOf({&decoded.code, 1});
    return;
  }
  decoded.name = row->name;
  if (!row->fits(payload.size())) return ignored();
  if (row->words) decoded.words = row->words(payload);
  if (decoded.code == MouseKeyReply) decoded.words = keyWords(payload[0], model);
  const int at = row->status != kStep ? row->status : payload.size() == 6 ? 5 : 0;
  decoded.refuses = at >= 0 && payload[static_cast<std::size_t>(at)] != 0;
}

std::string olderKeys(std::uint8_t key) {
  switch (key) {
    case 0x21:
      return "voice down";
    case 0x11:
      return "right down";
    case 0x41:
      return "open navigation";
    case 0x51:
      return "screenshot";
    case 0x65:
      return "battery low";
    default:
      return "all up";
  }
}

Decoded decodeOlder(Payload report, const Interface& hid) {
  constexpr std::uint16_t kKeyboard = 0x0135;
  const std::size_t at = hid.product == kKeyboard ? 2 : 3;
  Decoded decoded;
  decoded.name = "keys";
  if (report.size() <= at) return decoded;
  decoded.form = Form::OlderKeys;
  decoded.code = report[at];
  decoded.words = olderKeys(decoded.code);
  return decoded;
}

}  // namespace

std::span<const Request> requests() { return kRequests; }

const Request* requestOf(std::uint8_t code) {
  const auto found =
      std::find_if(kRequests.begin(), kRequests.end(), [code](const Request& r) { return r.code == code; });
  return found != kRequests.end() ? &*found : nullptr;
}

const ModelSheet& sheetOf(const Interface& hid) {
  const HidId id{hid.vendor, hid.product};
  for (const ModelSheet& sheet : ModelSheets()) {
    for (const auto& ids : {sheet.usb, sheet.bluetooth}) {
      if (std::find(ids.begin(), ids.end(), id) != ids.end()) return sheet;
    }
  }
  return SheetOf(MouseType_Unknown);
}

Decoded decode(std::span<const std::uint8_t> report, bool sent, const Interface& hid, const ModelSheet& model) {
  if (hid.former) return decodeOlder(report, hid);
  const DataChannel link = hid.link == DataChannel_BluetoothLE ? DataChannel_BluetoothLE : DataChannel_Usb;
  Decoded decoded;
  CHidData data;
  if (!ParseReport(report, link, data)) {
    const bool like = !report.empty() && report[0] == kCommandReportId;
    decoded.form = like ? Form::Damaged : Form::Other;
    decoded.name = like ? "damaged frame" : "other report";
    return decoded;
  }
  decoded.code = data.code;
  decoded.receiver = data.channel == DataChannel_Receiver;
  if (data.data) decoded.payload.assign(data.data, data.data + data.length);
  // A payload of speech may contain anything, a command only what was written to it.
  decoded.form = Form::Frame;
  if (sent) {
    describeCommand(decoded);
  } else if (data.code == AudioDataTern || data.code == AudioDataWren) {
    decoded.form = Form::Speech;
    decoded.name = data.code == AudioDataWren ? "SBC speech" : "speech in the closed codec";
  } else {
    describeReply(decoded, model);
  }
  return decoded;
}

const char* inWords(KeyAction action) {
  switch (action) {
    case KeyAction::VoiceDown:
      return "voice down";
    case KeyAction::VoiceUp:
      return "voice up";
    case KeyAction::RightDown:
      return "right down";
    case KeyAction::RightUp:
      return "right up";
    case KeyAction::MKeyDown:
      return "M key down";
    case KeyAction::MKeyUp:
      return "M key up";
    case KeyAction::OpenNavigation:
      return "open navigation";
    case KeyAction::Screenshot:
      return "screenshot";
    case KeyAction::DoubleClick:
      return "voice double click";
    case KeyAction::RightShortPress:
      return "right short press";
    case KeyAction::VoiceDownOrRightUp:
      return "voice down, or right up";
    case KeyAction::RightDownOrVoiceUp:
      return "right down, or voice up";
    case KeyAction::AllUp:
      return "all up";
  }
  return "?";
}

std::string shortName(const ModelSheet& model) {
  if (model.number == MouseType_Unknown) return {};
  const std::string name = Utf8(model.name);
  const std::string maker = "VoxMouse ";
  return name.starts_with(maker) ? name.substr(maker.size()) : name;
}

std::string hexOf(std::span<const std::uint8_t> bytes) {
  std::string text;
  for (const std::uint8_t byte : bytes) {
    text += "0123456789abcdef"[byte >> 4];
    text += "0123456789abcdef"[byte & 0xF];
  }
  return text;
}

}  // namespace capture
