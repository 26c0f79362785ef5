// Capture files, of whatever program: what is read of them, and what of bytes that are none.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/Desk.h"
#include "tests/Folder.h"
#include "tools/capture/Capture.h"

namespace {

using capture::Capture;
using capture::Kind;
using Bytes = std::vector<std::uint8_t>;

class Writer {
 public:
  explicit Writer(bool big = false) : big_(big) {}
  Writer& put(std::uint64_t value, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      const std::size_t byte = big_ ? count - 1 - i : i;
      bytes.push_back(static_cast<std::uint8_t>(byte < sizeof value ? value >> 8 * byte : 0));
    }
    return *this;
  }
  Writer& put(const Bytes& more, std::size_t align = 1) {
    bytes.insert(bytes.end(), more.begin(), more.end());
    bytes.resize((bytes.size() + align - 1) / align * align);
    return *this;
  }
  Writer& option(std::uint16_t code, const Bytes& value) { return put(code, 2).put(value.size(), 2).put(value, 4); }
  Writer& option(std::uint16_t code, const std::string& text) { return option(code, Bytes(text.begin(), text.end())); }
  Writer& block(std::uint32_t type, const Writer& body) {
    const std::size_t length = 12 + body.bytes.size();
    return put(type, 4).put(length, 4).put(body.bytes).put(length, 4);
  }

  Bytes bytes;

 private:
  bool big_;
};

Writer section(bool big, const std::string& comment = "") {
  Writer body(big);
  body.put(0x1A2B3C4D, 4).put(1, 2).put(0, 2).put(~std::uint64_t{0}, 8);
  body.option(1, comment).option(4, "voxdevice 0.1.0").put(0, 4);
  return Writer(big).block(0x0A0D0D0A, body);
}

Writer interfaceBlock(bool big, std::uint16_t type, const std::string& name = "", const std::string& text = "",
                      std::uint8_t resolution = 6) {
  Writer body(big);
  body.put(type, 2).put(0, 2).put(0, 4).option(2, name).option(3, text).option(9, Bytes{resolution}).put(0, 4);
  return body;
}

Writer packetBlock(bool big, std::uint32_t link, std::uint64_t time, const Bytes& data, const std::string& comment) {
  Writer body(big);
  body.put(link, 4).put(time >> 32, 4).put(time & 0xFFFFFFFF, 4).put(data.size(), 4).put(data.size(), 4).put(data, 4);
  return body.option(1, comment).put(0, 4);
}

// direction: 0 none, 1 sent, 2 received; as one program and as another writes it.
Bytes exported(std::uint32_t direction, const Bytes& report) {
  Writer tags(true);
  tags.option(12, "voxmouse");
  if (direction == 2) {
    tags.put(35, 2).put(4, 2).put(1, 4);
  } else if (direction != 0) {
    tags.put(36, 2).put(4, 2).put(direction, 4);
  }
  return tags.put(0, 4).put(report).bytes;
}

const Bytes kBeat{5, 0xFF, 0xF1, 0xFE, 0xC0, 5, 0, 0xEF};
const Bytes kAnswer{5, 0xFF, 0xF1, 0xFE, 0xC0, 0x68, 0, 0xEF};
const std::string kPath = R"(\\?\hid#vid_248a&pid_8100#1#{4d1e55b2-f16f-11cf-88cb-001111000030})";

// A capture in words, a line each.
std::string inWords(const Capture& capture) {
  std::ostringstream text;
  for (const auto& each : capture.interfaces) {
    text << std::hex << each.vendor << ':' << each.product << std::dec << " in " << each.inputLength << " out "
         << each.outputLength << " link " << each.link << (each.former ? " former " : " ") << each.path << '\n';
  }
  const char* const kinds[] = {"sent", "received", "opened", "refused", "read failed", "write failed", "told"};
  for (const auto& event : capture.events) {
    text << event.time << ' ' << event.hid << ' ' << kinds[static_cast<int>(event.kind)];
    if (event.device != -1) text << " device " << event.device;
    if (event.thread != 0) text << " thread " << event.thread;
    if (event.error != 0) text << " error " << event.error;
    if (event.kind == Kind::Told) {
      text << ' ' << event.name;
      for (const int value : event.values) text << ' ' << value;
      text << " \"" << event.text << '"';
    }
    text << ' ' << hex(event.report).substr(0, 20) << '\n';
  }
  return text.str();
}

Writer recording(bool big, int part = 1) {
  Writer file = section(big, "part=" + std::to_string(part) + " of=1764115200000000");
  file.block(1, interfaceBlock(big, 252, "client"));
  file.block(1, interfaceBlock(big, 252, kPath, "vid=248a pid=8100 link=usb in=64 out=48 former=1"));
  file.block(0xBAD, Writer(big).put(1, 4));
  const struct {
    std::uint32_t link, direction;
    Bytes report;
    const char* comment;
  } packets[] = {{1, 0, {}, "device=-1 thread=3 tick=1000 event=opened"},
                 {1, 1, kBeat, "device=1 thread=7 tick=12345"},
                 {1, 2, kAnswer, ""},
                 {1, 1, kBeat, "device=1 thread=7 tick=1 event=write-failed error=1167"},
                 {1, 0, {}, "device=-1 thread=3 tick=1000 event=refused error=5"},
                 {1, 0, {}, "device=x thread= =1 event=read-failed error=99999999999"},
                 {0, 0, {}, "device=1 thread=7 tick=5 event=log values=43,-7 text=a=b text=\xE8\xAF\xAD"},
                 {0, 0, {}, "device=2 event=connect"},
                 {1, 0, kBeat, "device=1"},
                 {1, 3, kBeat, ""}};
  std::uint64_t time = std::uint64_t{1} << 32;
  for (const auto& each : packets) {
    file.block(6, packetBlock(big, each.link, time++, exported(each.direction, each.report), each.comment));
  }
  return file;
}

const std::string kRecorded = "248a:8100 in 64 out 48 link 2 former " + kPath +
                              "\n4294967296 0 opened thread 3 \n"
                              "4294967297 0 sent device 1 thread 7 05fff1fec00500ef\n"
                              "4294967298 0 received 05fff1fec06800ef\n"
                              "4294967299 0 write failed device 1 thread 7 error 1167 05fff1fec00500ef\n"
                              "4294967300 0 refused thread 3 error 5 \n"
                              "4294967301 0 read failed \n"
                              "4294967302 -1 told device 1 thread 7 log 43 -7 \"a=b text=\xE8\xAF\xAD\" \n"
                              "4294967303 -1 told device 2 connect \"\" \n";

TEST(CaptureReader, ReadsOurOwnRecordings) {
  for (const bool big : {false, true}) {
    const Capture capture = capture::read(recording(big).bytes);
    EXPECT_EQ(inWords(capture), kRecorded);
    EXPECT_EQ(capture.source, "voxdevice 0.1.0");
    EXPECT_EQ(capture.problem, "");
    EXPECT_EQ(capture.leftOut, 2U);
  }
}

TEST(CaptureReader, KnowsEveryResolution) {
  const struct {
    std::uint8_t resolution;
    std::uint64_t units;
    std::int64_t time;
  } cases[] = {{6, 5'000'001, 5'000'001},
               {0, 7, 7'000'000},
               {3, 1500, 1'500'000},
               {9, 1'999, 1},
               {25, ~std::uint64_t{0}, 1},
               {127, 1, 0},
               {0x80, 7, 7'000'000},
               {0x81, 3, 1'500'000},
               {0x94, (5U << 20) + (1U << 19), 5'500'000},
               {0xFF, 1, 0},
               {0xBF, 1ULL << 62, 500'000},
               {0, 0x7FFF'FFFF'FFFF'FFFF, std::int64_t{1} << 60}};
  for (const auto& each : cases) {
    Writer file = section(false);
    file.block(1, interfaceBlock(false, 252, kPath, "", each.resolution));
    file.block(6, packetBlock(false, 0, each.units, exported(1, kBeat), ""));
    // Without a time of its own: that of the one before.
    const Bytes data = exported(2, kAnswer);
    file.block(3, Writer().put(data.size(), 4).put(data, 4));
    const Capture capture = capture::read(file.bytes);
    ASSERT_EQ(capture.events.size(), 2U) << capture.problem;
    EXPECT_EQ(capture.events[0].time, each.time) << int{each.resolution};
    EXPECT_EQ(capture.events[1].time, each.time);
  }
}

// ---- A USB bus ----

struct Urb {
  std::uint64_t id;
  char stage;  // S: submitted, C: complete
  int transfer;
  std::uint8_t endpoint, device;
  int result;  // 0: good, 1: failed, 2: gone
  Bytes setup, data;
};

Bytes usbmon(const Urb& urb, bool big, bool brief) {
  const std::int32_t results[] = {0, -32, -108};
  Writer head(big);
  head.put(urb.id, 8).put(static_cast<std::uint8_t>(urb.stage), 1).put(urb.transfer == 1 ? 1 : 2, 1);
  head.put(urb.endpoint, 1).put(urb.device, 1).put(1, 2).put(urb.setup.empty(), 1).put(0, 1).put(0, 8).put(0, 4);
  head.put(static_cast<std::uint32_t>(results[urb.result]), 4).put(urb.data.size(), 4).put(urb.data.size(), 4);
  Bytes setup = urb.setup;
  setup.resize(brief ? 8 : 24);
  return head.put(setup).put(urb.data).bytes;
}

Bytes usbPcap(const Urb& urb) {
  const std::uint32_t results[] = {0, 0xC0000011, 0xC0007000};
  const bool control = urb.transfer == 2;
  const bool complete = urb.stage == 'C';
  Writer head;
  head.put(control ? 28 : 27, 2).put(urb.id, 8).put(results[urb.result], 4).put(9, 2).put(complete, 1).put(1, 2);
  head.put(urb.device, 2).put(urb.endpoint, 1).put(control ? 2 : 1, 1).put(urb.setup.size() + urb.data.size(), 4);
  if (control) head.put(complete ? 3 : 0, 1);
  return head.put(urb.setup).put(urb.data).bytes;
}

Bytes padded(Bytes report, std::size_t length = 64) {
  report.resize(length);
  return report;
}

const std::vector<Urb> kBus{
    // A composite device: a mouse, and our interface, which takes reports by control requests.
    {1, 'S', 2, 0x80, 5, 0, {0x80, 6, 0, 1, 0, 0, 18, 0}, {}},
    {1, 'C', 2, 0x80, 5, 0, {}, {18, 1, 0, 2, 0, 0, 0, 64, 0x8A, 0x24, 0x00, 0x81, 0, 1, 0, 0, 0, 1}},
    {2, 'S', 2, 0x80, 5, 0, {0x80, 6, 0, 2, 0, 0, 255, 0}, {}},
    {2, 'C', 2, 0x80, 5, 0, {}, {9, 2, 50, 0, 2, 1, 0, 160, 50, 9, 4, 0, 0, 1, 3, 1,    2, 0,  7, 5, 0x81,
                                 3, 8, 0,  1, 9, 4, 1, 0,   1,  3, 0, 0, 0, 7, 5, 0x82, 3, 64, 0, 1}},
    {3, 'S', 1, 0x82, 5, 0, {}, {}},
    {4, 'C', 1, 0x81, 5, 0, {}, {1, 0, 3, 4}},
    {5, 'S', 2, 0x00, 5, 0, {0x21, 9, 5, 2, 1, 0, 48, 0}, padded(kBeat, 48)},
    {5, 'C', 2, 0x00, 5, 0, {}, {}},
    {3, 'C', 1, 0x82, 5, 0, {}, padded(kAnswer)},
    {3, 'C', 1, 0x82, 5, 0, {}, {2, 1, 1}},
    {3, 'C', 1, 0x82, 5, 0, {}, padded({0x1B, 0, 9}, 62)},
    {3, 'C', 1, 0x82, 5, 0, {}, padded({5, 0xFF, 0xF1, 0xFE, 0xC0, 0x68, 9})},  // damaged
    {6, 'S', 2, 0x00, 5, 0, {0x21, 9, 5, 2, 1, 0, 48, 0}, padded(kBeat, 48)},
    {6, 'C', 2, 0x00, 5, 1, {}, {}},
    {3, 'C', 1, 0x82, 5, 2, {}, {}},
    // One that was there before: its frames tell that it is ours.
    {7, 'S', 1, 0x03, 6, 0, {}, padded(kBeat, 40)},
    {7, 'C', 1, 0x03, 6, 0, {}, {}},
    {8, 'C', 1, 0x83, 6, 0, {}, padded(kAnswer, 40)},
    // Somebody else's, whose report has a number of ours.
    {9, 'C', 1, 0x81, 7, 0, {}, {0x1B, 1, 2, 3, 4, 5, 6, 7}},
};

// failed, gone: the errors as the system spells them.
std::string busInWords(const std::string& failed, const std::string& gone) {
  return R"(248a:8100 in 64 out 48 link 2 \\?\hid#vid_248a&pid_8100&mi_01#7&1050000&0&0082#{4d1e55b2-f16f-11cf-88cb-001111000030}
0:0 in 40 out 40 link 2 \\?\hid#vid_0000&pid_0000#7&1060001&0&0083#{4d1e55b2-f16f-11cf-88cb-001111000030}
6000000 0 sent 05fff1fec00500ef0000
8000000 0 received 05fff1fec06800ef0000
10000000 0 received 1b000900000000000000
11000000 0 received 05fff1fec06809000000
12000000 0 write failed error )" +
         failed + " 05fff1fec00500ef0000\n14000000 0 read failed error " + gone + R"( 
15000000 1 sent 05fff1fec00500ef0000
17000000 1 received 05fff1fec06800ef0000
)";
}

TEST(CaptureReader, FindsOurInterfacesOnABus) {
  const struct {
    std::uint16_t type;
    bool big, classic, nanoseconds;
  } cases[] = {{220, false, false, false}, {220, true, false, false},  {220, true, true, false},
               {189, false, true, true},   {249, false, false, false}, {249, true, true, true}};
  for (const auto& each : cases) {
    SCOPED_TRACE(each.type);
    Writer file = each.classic ? Writer(each.big) : section(each.big);
    if (each.classic) {
      file.put(each.nanoseconds ? 0xA1B23C4D : 0xA1B2C3D4, 4).put(2, 2).put(4, 2).put(0, 8).put(65535, 4);
      file.put(each.type, 4);
    } else {
      file.block(1, interfaceBlock(each.big, each.type));
    }
    std::uint32_t second = 0;
    for (const Urb& urb : kBus) {
      const Bytes data = each.type == 249 ? usbPcap(urb) : usbmon(urb, each.big, each.type == 189);
      if (each.classic) {
        file.put(second++, 4).put(each.nanoseconds ? 999 : 0, 4).put(data.size(), 4).put(data.size(), 4).put(data);
      } else {
        file.block(6, packetBlock(each.big, 0, second++ * std::uint64_t{1'000'000}, data, ""));
      }
    }
    const Capture capture = capture::read(file.bytes);
    EXPECT_EQ(inWords(capture), each.type == 249 ? busInWords("3221225489", "3221254144") : busInWords("32", "108"));
    EXPECT_EQ(capture.problem, "");
    EXPECT_EQ(capture.leftOut, kBus.size() - 8);
  }
}

// ---- Hostile bytes ----

TEST(CaptureReader, KeepsWhatCameBeforeAProblem) {
  const Bytes good = recording(false).bytes;
  const std::size_t all = capture::read(good).events.size();
  std::size_t before = 0;
  for (std::size_t length = 0; length < good.size(); ++length) {
    const Capture capture = capture::read(std::span(good).first(length));
    EXPECT_GE(capture.events.size(), before);
    before = capture.events.size();
    EXPECT_LE(before, all);
    EXPECT_TRUE(length % 4 == 0 || capture.problem.starts_with("at ")) << length;
  }
  const std::size_t end = good.size();
  const auto then = [&good](const Writer& more) { return Writer().put(good).put(more.bytes).bytes; };
  const struct {
    Bytes file;
    std::string problem;
  } cases[] = {
      {then(Writer().put(6, 4).put(3, 4).put(0, 8)), "a block of 3 bytes"},
      {then(Writer().put(6, 4).put(14, 4).put(0, 8)), "a block of 14 bytes"},
      {then(Writer().put(6, 4).put(0xFFFFFFFC, 4).put(0, 8)), "a block of 4294967292 bytes, of which 16 are there"},
      {then(Writer().put(7, 4).put(16, 4).put(0, 4).put(12, 4)), "a block whose two lengths differ"},
      {then(Writer().put(6, 4)), "a block of 4 bytes; the file is cut off"},
      {then(Writer().block(6, packetBlock(false, 9, 0, {}, ""))), "a packet of interface 9, which is not there"},
      {then(Writer().block(6, Writer().put(1, 4).put(0, 8).put(0xFFFFFFFF, 4).put(0, 4))),
       "a packet that claims 4294967295 bytes"},
      {then(Writer().block(0x0A0D0D0A, Writer().put(0x12345678, 4).put(0, 12))), "a section without its byte order"},
  };
  for (const auto& each : cases) {
    const Capture capture = capture::read(each.file);
    EXPECT_EQ(capture.problem, "at " + std::to_string(end) + ": " + each.problem);
    EXPECT_EQ(capture.events.size(), all);
  }
  Writer classic;
  classic.put(0xA1B2C3D4, 4).put(0, 16).put(249, 4).put(0, 8).put(0xFFFFFFF0, 4).put(0, 4);
  EXPECT_EQ(capture::read(classic.bytes).problem, "at 24: a packet of 4294967280 bytes, of which 0 are there");
  EXPECT_EQ(capture::read(Bytes{1, 2, 3, 4, 5}).problem, "at 0: neither pcapng nor pcap");
}

TEST(CaptureReader, ReadsWhatContinuesAFile) {
  Folder folder;
  int part = 0;
  for (const auto& [name, cut] :
       {std::pair("a.pcapng", 0U), {"a-2.pcapng", 2U}, {"a-3.pcapng", 0U}, {"b.pcapng", ~0U}}) {
    const Bytes bytes = recording(false, ++part).bytes;
    const std::size_t length = cut < bytes.size() ? bytes.size() - cut : 0;
    folder.with(std::span(bytes).first(length), name);
  }
  const Capture capture = capture::readFile(folder / "a.pcapng");
  EXPECT_EQ(capture.interfaces.size(), 1U);
  EXPECT_EQ(capture.events.size(), 24U);
  EXPECT_TRUE(capture.problem.starts_with("a-2.pcapng at ")) << capture.problem;
  EXPECT_THROW(capture::readFile(folder / "b.pcapng"), std::runtime_error);
  EXPECT_THROW(capture::readFile(folder / "c.pcapng"), std::runtime_error);
  EXPECT_THROW(capture::readFile(folder / ""), std::runtime_error);
}

}  // namespace
