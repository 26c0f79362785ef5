// Writes into documents what the models' data sheets say: modeltables [--check] DOCUMENT...
// What stands in a document between <!-- models: WHAT --> and <!-- end of models --> is made here. With --check nothing
// is written, and a document that would change is an error.
#include <algorithm>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "models/Models.h"

namespace {

using Row = std::vector<std::string>;

// Names in sheets are plain ASCII.
std::string narrow(const std::wstring& text) {
  std::string result;
  for (const wchar_t c : text) result += static_cast<char>(c);
  return result;
}

std::string shortName(const ModelSheet& sheet) {
  const std::string maker = "VoxMouse ";
  const std::string name = narrow(sheet.name);
  return name.starts_with(maker) ? name.substr(maker.size()) : name;
}

std::string hex(unsigned number, int digits) {
  std::string text;
  for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4) text += "0123456789ABCDEF"[number >> shift & 0xF];
  return text;
}

std::string join(const std::vector<std::string>& parts) {
  std::string text;
  for (const std::string& part : parts) text += (text.empty() ? "" : ", ") + part;
  return text;
}

std::string row(const Row& cells) {
  std::string text = "|";
  for (const std::string& cell : cells) text += " " + cell + " |";
  return text + "\n";
}

std::string head(const Row& titles) { return "\n" + row(titles) + row(Row(titles.size(), "---")); }

// ---- What sheets say, in words ----

std::string nameWords(const ModelSheet& sheet) {
  std::string text = shortName(sheet);
  for (const wchar_t* word : sheet.recordingNames) {
    if (text.find(narrow(word)) == std::string::npos) text += " (and " + narrow(word) + ")";
  }
  return text;
}

using Ids = std::initializer_list<HidId> ModelSheet::*;

// A model without any identifier presents itself with those of its family.
std::string identifiers(const ModelSheet& sheet, Ids link) {
  std::vector<std::string> texts;
  for (const HidId& id : sheet.*link) texts.push_back(hex(id.vendor, 4) + ":" + hex(id.product, 4));
  if (sheet.usb.size() + sheet.bluetooth.size() == 0) {
    for (const ModelSheet& other : ModelSheets()) {
      if (other.firmware == sheet.firmware && (other.*link).size() > 0) texts.push_back("as the " + shortName(other));
    }
  }
  return texts.empty() ? "-" : join(texts);
}

const char* inWords(SpeechCodec codec) {
  switch (codec) {
    case SpeechCodec::Closed:
      return "closed codec, in `asc_lib.dll`";
    case SpeechCodec::Sbc:
      return "SBC";
    case SpeechCodec::Either:
      return "either, by report id";
  }
  return "?";
}

const char* inWords(FirmwareFamily family) {
  switch (family) {
    case FirmwareFamily::Tern:
      return "Tern";
    case FirmwareFamily::Standard:
      return "standard";
    case FirmwareFamily::Zh:
      return "Zh";
  }
  return "?";
}

// What a key does, and the user's word for the key that does it.
const std::map<KeyAction, std::pair<const char*, const char*>> kActions = {
    {KeyAction::VoiceDown, {"voice down", "voice"}},
    {KeyAction::VoiceUp, {"voice up", "voice"}},
    {KeyAction::RightDown, {"right down", "right"}},
    {KeyAction::RightUp, {"right up", "right"}},
    {KeyAction::MKeyDown, {"M key down", "M key"}},
    {KeyAction::MKeyUp, {"M key up", "M key"}},
    {KeyAction::OpenNavigation, {"open navigation", "navigation"}},
    {KeyAction::Screenshot, {"screenshot", "screenshot"}},
    {KeyAction::DoubleClick, {"voice double click", "double click"}},
    {KeyAction::RightShortPress, {"right short press", "short press"}},
    {KeyAction::VoiceDownOrRightUp, {"voice down, or right up", "voice"}},
    {KeyAction::RightDownOrVoiceUp, {"right down, or voice up", "right"}},
    {KeyAction::AllUp, {"all up", "voice"}},
};

std::string keyWords(const ModelSheet& sheet) {
  if (!sheet.keysAreDecoded) return "not decoded";
  std::vector<std::string> words;
  for (const auto& [key, action] : sheet.keys) {
    const char* word = kActions.at(action).second;
    if (std::find(words.begin(), words.end(), word) == words.end()) words.emplace_back(word);
  }
  return join(words);
}

// What this key does on this model.
std::string keyCell(const ModelSheet& sheet, char key) {
  for (const auto& [known, action] : sheet.keys) {
    if (known != key) continue;
    const std::string words = kActions.at(action).first;
    return sheet.keysAreDecoded ? words : "(" + words + ")";
  }
  return "-";
}

// ---- The parts of documents ----

std::string names() {
  std::vector<std::string> all;
  for (const ModelSheet& sheet : ModelSheets()) all.push_back(shortName(sheet));
  return join(all);
}

std::string hardware() {
  std::string table =
      head({"model", "number", "USB (vendor:product)", "Bluetooth LE (vendor:product)", "voice", "keys"});
  for (const ModelSheet& sheet : ModelSheets()) {
    table += row({nameWords(sheet), std::to_string(sheet.number), identifiers(sheet, &ModelSheet::usb),
                  identifiers(sheet, &ModelSheet::bluetooth), inWords(sheet.codec), keyWords(sheet)});
  }
  return table;
}

std::string firmware() {
  std::string table = head({"model", "number", "firmware", "`IdentifyReply`", "M keys"});
  for (const ModelSheet& sheet : ModelSheets()) {
    table += row({shortName(sheet), std::to_string(sheet.number), inWords(sheet.firmware),
                  sheet.identifyReply ? "0x" + hex(*sheet.identifyReply, 2) : "-", sheet.hasMKeys ? "yes" : "-"});
  }
  return table;
}

// A row for each key, a column for each layout.
std::string keys() {
  std::set<char> all;
  for (const ModelSheet& sheet : ModelSheets()) {
    for (const auto& known : sheet.keys) all.insert(known.key);
  }
  std::vector<std::pair<std::string, Row>> layouts;
  for (const ModelSheet& sheet : ModelSheets()) {
    Row cells;
    for (const char key : all) cells.push_back(keyCell(sheet, key));
    const auto same = std::find_if(layouts.begin(), layouts.end(), [&](const auto& l) { return l.second == cells; });
    if (same != layouts.end()) {
      same->first += ", " + shortName(sheet);
    } else {
      layouts.emplace_back(shortName(sheet), std::move(cells));
    }
  }
  Row titles{"key"};
  for (const auto& layout : layouts) titles.push_back(layout.first);
  std::string table = head(titles);
  std::size_t line = 0;
  for (const char key : all) {
    Row cells{std::string("`") + key + "`"};
    for (const auto& layout : layouts) cells.push_back(layout.second[line]);
    table += row(cells);
    ++line;
  }
  return table;
}

// Rows of a table in Lua, where the parts' marks are comments.
std::string dissector() {
  std::string table = "\n";
  for (const ModelSheet& sheet : ModelSheets()) {
    std::vector<std::string> ids;
    for (const Ids link : {&ModelSheet::usb, &ModelSheet::bluetooth}) {
      for (const HidId& id : sheet.*link) ids.push_back("0x" + hex(id.vendor, 4) + hex(id.product, 4));
    }
    const std::string identify = sheet.identifyReply ? "identify = 0x" + hex(*sheet.identifyReply, 2) + ", " : "";
    table += "  {\n    name = \"" + shortName(sheet) + "\", firmware = \"" + inWords(sheet.firmware) + "\", " +
             identify + "ids = {" + join(ids) + "},\n    keys = {\n";
    for (const auto& known : sheet.keys) {
      table += std::string("      [\"") + known.key + "\"] = \"" + keyCell(sheet, known.key) + "\",\n";
    }
    table += "    },\n  },\n";
  }
  return table + "  -- ";
}

const std::map<std::string, std::string (*)()> kParts = {
    {"names", &names}, {"hardware", &hardware}, {"firmware", &firmware}, {"keys", &keys}, {"dissector", &dissector}};

// The document with its parts made anew.
std::string remake(const std::string& text) {
  const std::string begin = "<!-- models: ", close = " -->", end = "<!-- end of models -->";
  std::string result;
  std::size_t done = 0;
  for (std::size_t at; (at = text.find(begin, done)) != std::string::npos;) {
    const std::size_t name = at + begin.size();
    const std::size_t closed = text.find(close, name);
    const std::size_t ended = text.find(end, name);
    if (closed == std::string::npos || ended == std::string::npos) throw std::runtime_error("a part does not end");
    const auto part = kParts.find(text.substr(name, closed - name));
    if (part == kParts.end()) throw std::runtime_error("there is no " + text.substr(name, closed - name));
    result += text.substr(done, closed + close.size() - done) + part->second();
    done = ended;
  }
  if (done == 0) throw std::runtime_error("no part of it is about models");
  return result + text.substr(done);
}

// False when the document differs.
bool handle(const std::string& path, bool check) {
  std::ifstream in(path, std::ios::binary);
  std::string text(std::istreambuf_iterator<char>(in), {});
  if (!in) throw std::runtime_error("cannot be read");
  const std::string made = remake(text);
  if (made == text) return true;
  if (!check) {
    std::ofstream out(path, std::ios::binary);
    out << made;
    if (!out.flush()) throw std::runtime_error("cannot be written");
    return true;
  }
  std::cerr << path << " is not what the models' sheets say. Make it anew: modeltables " << path << "\n";
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> paths(argv + 1, argv + argc);
  const bool check = !paths.empty() && paths[0] == "--check";
  if (check) paths.erase(paths.begin());
  if (paths.empty()) {
    std::cerr << "usage: modeltables [--check] DOCUMENT...\n";
    return 2;
  }
  bool same = true;
  for (const std::string& path : paths) {
    try {
      same = handle(path, check) && same;
    } catch (const std::exception& error) {
      std::cerr << path << ": " << error.what() << "\n";
      same = false;
    }
  }
  return same ? 0 : 1;
}
