// What is made of a recording: the story, exactly, as a text and as JSON; and the page.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "hid/HidFrame.h"
#include "tests/Desk.h"
#include "tools/capture/Report.h"

namespace {

using capture::Capture;
using capture::Event;
using capture::Kind;
using Bytes = std::vector<std::uint8_t>;

// A Wren over USB with its receiver, and a Heron over Bluetooth LE. Times are milliseconds.
class Recording {
 public:
  Recording() {
    capture.interfaces = {{.path = "wren", .vendor = 0x6D8C, .product = 0x6137, .link = DataChannel_Usb},
                          {.path = "heron", .vendor = 0x1D8D, .product = 0x1138, .link = DataChannel_BluetoothLE}};
    capture.source = "a test";
  }
  void send(int time, std::uint8_t code, const Bytes& payload = {}, int of = 0, DataChannel to = DataChannel_Usb) {
    frame(Kind::Sent, time, code, payload, of, to);
  }
  void receive(int time, std::uint8_t code, const Bytes& payload = {}, int of = 0, DataChannel from = DataChannel_Usb) {
    frame(Kind::Received, time, code, payload, of, from);
  }
  void report(int time, Bytes bytes, int of = 0) { add(Kind::Received, time, of).report = std::move(bytes); }
  // A request and its answer, 2 ms later.
  void ask(int time, std::uint8_t code, std::uint8_t answer, const Bytes& payload = {}, const Bytes& reply = {}) {
    send(time, code, payload);
    receive(time + 2, answer, reply);
  }
  Event& add(Kind kind, int time, int of) {
    capture.events.emplace_back();
    Event& event = capture.events.back();
    event.kind = kind;
    event.time = 1'700'000'000'000'000 + std::int64_t{time} * 1000;
    event.hid = of;
    event.device = of < 0 ? -1 : of + 1;
    return event;
  }
  std::string text() const { return capture::textOf(capture::tell(capture, 100'000), "test.pcapng"); }

  Capture capture;

 private:
  void frame(Kind kind, int time, std::uint8_t code, const Bytes& payload, int of, DataChannel channel) {
    Bytes bytes(64);
    BuildFrame(code, payload.data(), static_cast<int>(payload.size()), channel, bytes);
    add(kind, time, of).report = bytes;
  }
};

// The part of a text with this title.
std::string part(const std::string& text, const std::string& title) {
  const auto from = text.find("\n" + title);
  if (from == std::string::npos) return {};
  const auto line = text.find('\n', from + 1) + 1;
  return text.substr(line, text.find("\n\n", line) - line + 1);
}

TEST(Report, TellsOfADesk) {
  Recording desk;
  desk.add(Kind::Opened, 0, 0);
  desk.add(Kind::Opened, 0, 1);
  desk.ask(10, Heartbeat, HeartbeatReply);
  desk.ask(20, Identify, 0xA0, Bytes(32), Bytes(32));
  desk.ask(1000, GetMouseState, MouseStateReply, {}, {0, 1, 6, 64, 80, 1, 2, 3, 4, 5, 6});
  desk.send(1100, GetDongleState, {}, 0, DataChannel_Receiver);
  desk.receive(1103, DongleStateReply, {0x12, 0x34, 1}, 0, DataChannel_Receiver);
  desk.send(1100, GetDongleState, {}, 1, DataChannel_Receiver);  // over Bluetooth LE nobody has one
  desk.receive(1500, MouseKeyReply, {'0'});
  desk.ask(1600, SetDpi, DpiReply, {9, 96}, {9, 96, 1});
  desk.receive(1700, MouseKeyReply, {'9'});
  desk.receive(1800, MouseKeyReply, {'7'});
  desk.send(2000, SetDownloadUrl, {4, 5});
  desk.receive(2200, DownloadUrlReply, {0});
  for (int beat = 0; beat < 5; ++beat) desk.send(3000 + 1000 * beat, Heartbeat);
  desk.receive(7010, HeartbeatReply);
  desk.report(7100, {5, 0xFF, 0xF1, 0xFE, 0xC0, 0x68, 9});
  desk.receive(7200, MouseStateReply, {1});
  desk.report(7300, {2, 1, 1});
  desk.send(7400, SetDpi, {9, 96});
  desk.add(Kind::WriteFailed, 7401, 0).error = 1167;
  desk.add(Kind::ReadFailed, 7500, 0).error = 1167;
  Event& told = desk.add(Kind::Told, 7600, -1);
  told.name = "log";
  told.values = {43};
  told.text = "\x1B[2Jend\xC2\x9B";
  desk.add(Kind::Told, 9000, -1).name = "audio";
  EXPECT_EQ(desk.text(), R"(test.pcapng: 2023-11-14 22:13:20 UTC, 9.000 s, made by a test
13 reports sent, 13 received: 0 with speech, 2 damaged, 1 of something else
The client was told 2 things; 0 packets left out

Devices
  #1 Wren               USB, 6D8C:6137, battery 80 %, DPI 1600, address 01:02:03:04:05:06, with a receiver
     0.000 s  opened
     0.012 s  awake
     6.000 s  asleep
     7.010 s  awake
     7.500 s  gone
  #2 Heron              Bluetooth LE, 1D8D:1138
     0.000 s  opened

Unusual
     1.602 s  #1 Wren         refused   DpiReply: DPI 2400, refused with status 1
     2.000 s  #1 Wren         slow      SetDownloadUrl answered after 200.0 ms
     3.000 s  #1 Wren         silence   4 heartbeats unanswered
     7.100 s  #1 Wren         damaged   damaged frame
     7.200 s  #1 Wren         damaged   MouseStateReply of 1 bytes, a length that is ignored
     7.401 s  #1 Wren         failed    SetDpi could not be written (error 1167)
     7.500 s  #1 Wren         gone      the device has gone (error 1167)

Requests              sent  answered  unanswered     median    slowest
  Heartbeat              6         2           4    10.0 ms    10.0 ms
  SetDpi                 2         1           0     2.0 ms     2.0 ms
  GetMouseState          1         1           0     2.0 ms     2.0 ms
  GetDongleState         2         1           1     3.0 ms     3.0 ms
  SetDownloadUrl         1         1           0   200.0 ms   200.0 ms
  Identify               1         1           0     2.0 ms     2.0 ms

Keys
     1.500 s  #1 Wren         voice               0.200 s
     1.800 s  #1 Wren         key '7'

Log
     7.600 s       log           category 43:  [2Jend
)");
  const auto json = capture::jsonOf(capture::tell(desk.capture, 100'000), "test.pcapng");
  EXPECT_EQ(json["counts"].dump(), R"({"sent":13,"received":13,"speech":0,"damaged":2,"other":1,"told":2})");
  EXPECT_EQ(json["frames"].size(), 26U);
  EXPECT_EQ(
      json["frames"][1].dump(),
      R"({"time":0.012,"device":0,"sent":false,"receiver":false,"wrong":false,"routine":true,)"
      R"("name":"HeartbeatReply","words":"","bytes":"05fff1fec06800ef","note":"answers Heartbeat after 2.0 ms"})");
}

TEST(Report, TellsOfSpeech) {
  Recording desk;
  desk.ask(0, VoiceOpen, VoiceOpenReply, {}, {0});
  Bytes report(62);
  report[0] = 0x1B;
  for (int i = 0; i < 20; ++i) desk.report(i < 10 ? 20 + 15 * i : 200 + 15 * i, report);
  desk.ask(600, VoiceStop, VoiceStopReply);
  desk.report(610, report);  // was on its way
  desk.ask(2000, VoiceOpen, VoiceOpenReply, {}, {1});
  desk.ask(3000, VoiceOpen, VoiceOpenReply, {}, {0});
  desk.send(5000, VoiceStop);
  desk.add(Kind::ReadFailed, 7000, 0).error = 995;  // the client has closed it
  EXPECT_EQ(part(desk.text(), "Speech"),
            "     0.002 s  #1 Wren         0.30 s in 21 reports, peak -73.4 dBFS, about 12 missing\n"
            "     3.002 s  #1 Wren         0.00 s in 0 reports\n");
  EXPECT_EQ(
      part(desk.text(), "Unusual"),
      "     0.020 s  #1 Wren         dropped   about 12 reports of speech missing; the longest pause is 195.0 ms\n"
      "     2.002 s  #1 Wren         refused   VoiceOpenReply: refused with status 1\n"
      "     3.002 s  #1 Wren         silence   a voice channel without speech\n");
  EXPECT_EQ(capture::tell(desk.capture, 100'000).speech[1].to, 5'000'000);  // asked to close, it never said that it has
}

TEST(Report, TellsOfUpdates) {
  const Bytes image(18, 7);
  const auto block = [&](int index) {
    Bytes bytes = image;
    bytes[0] = static_cast<std::uint8_t>(index);
    bytes[1] = 0;
    return bytes;
  };
  Recording desk;
  desk.ask(0, OtaOpen, OtaOpenReply, image, {0});
  desk.ask(100, OtaData, OtaDataReply, block(0), {0, 1, 0});
  desk.ask(200, OtaData, OtaDataReply, block(1), {0, 2, 0});
  desk.ask(300, OtaComplete, OtaCompleteReply, {}, {0});
  desk.send(310, OtaComplete);  // nobody answers this one
  // The bytes of a Tern, and an abort.
  desk.ask(1000, OtaPrepare, OtaPrepareReply, {}, {0});
  desk.ask(1100, OtaOpen, OtaOpenReply, Bytes(10), {0, 0, 1, 0, 30, 0});
  desk.ask(1200, OtaData, OtaDataReply, Bytes(30), {0, 0, 0, 0, 0, 3});
  desk.ask(1300, OtaAbort, OtaEndReply, {}, {0});
  desk.ask(2000, OtaOpen, OtaOpenReply, image, {0});
  desk.send(2100, OtaData, block(0));
  desk.add(Kind::ReadFailed, 7000, 0).error = 1167;
  EXPECT_EQ(part(desk.text(), "Updates"),
            "     0.000 s  #1 Wren         32 bytes in 2 messages, 0.3 s: done\n"
            "     1.000 s  #1 Wren         286 bytes in 1 message, 0.3 s: refused at OtaData\n"
            "     2.000 s  #1 Wren         16 bytes in 1 message, 0.1 s: the device went away, waiting for an answer "
            "to OtaData\n");
  EXPECT_NE(part(desk.text(), "Requests").find("OtaComplete            1         1           0"), std::string::npos);
}

TEST(Report, ThePageHoldsAnythingAndStaysInBounds) {
  Recording desk;
  desk.capture.interfaces[0].path = "</script><script>alert(1)</script>\xFF";
  for (int beat = 0; beat < 15'000; ++beat) desk.ask(beat * 1000, Heartbeat, HeartbeatReply);
  desk.send(20'000'000, SetDpi, {1, 2});
  const std::string page = capture::htmlOf(capture::tell(desk.capture, 100'000), "<b>.pcapng");
  EXPECT_EQ(page.find("<script>alert"), std::string::npos);
  EXPECT_EQ(page.find("<b>"), std::string::npos);
  EXPECT_NE(page.find("30000 frames of heartbeats and updates that were answered in time"), std::string::npos);
  EXPECT_LT(page.size(), 100'000U);
}

}  // namespace
