#!/bin/sh
# The page of a report in a real browser: it loads without an error, and shows what the JSON says.
# Usage: report_page_test.sh VOXDESK. Exit code 77: there is no browser here.
set -eu
voxdesk=$1
browser=$(command -v chromium || command -v chromium-browser || command -v google-chrome) || {
  echo "report_page_test: skipped, since there is no Chromium here (Debian's package chromium)"
  exit 77
}
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
cd "$dir"

fail() {
  echo "report_page_test: $1" >&2
  exit 1
}
# load NAME: the page as the browser has built it goes to NAME.dom.
load() {
  HOME=$dir timeout 120 "$browser" --headless --no-sandbox --disable-gpu --disable-dev-shm-usage --user-data-dir="$dir/profile" \
    --enable-logging=stderr --virtual-time-budget=10000 --dump-dom "file://$dir/$1.html" >"$1.dom" 2>"$1.log" ||
    fail "the browser ended with exit code $?: $(tail -3 "$1.log")"
  ! grep -E 'CONSOLE|Refused to' "$1.log" || fail "$1: a message on the console"
  grep -q 'data-drawn=' "$1.dom" || fail "$1: the page has not been drawn to its end"
}

# A device that falls silent, one that leaves, speech, an update.
cat >desk.json <<'JSON'
{"devices": [
  {"model": "Wren", "timeline": [{"at": 2, "key": "0"}, {"at": 4, "key": "9"}]},
  {"model": "Heron", "timeline": [{"at": 3, "key": "2"}, {"at": 6, "unplug": true}]},
  {"model": "Tern", "timeline": [{"at": 3, "sleep": true}, {"at": 9, "sleep": false}]}
]}
JSON
head -c 5000 "$voxdesk" >image.bin
"$voxdesk" --virtual-time --desk desk.json monitor --seconds 15 --capture watched.pcapng >/dev/null
"$voxdesk" --virtual-time --capture spoken.pcapng >/dev/null
"$voxdesk" --virtual-time update --yes --first image.bin --capture updated.pcapng >/dev/null

for name in watched spoken updated; do
  "$voxdesk" report "$name.pcapng" --out "$name.html" >/dev/null
  "$voxdesk" report "$name.pcapng" --json >"$name.json"
  load "$name"
  python3 - "$name" <<'PYTHON' || fail "$name: the page differs from the JSON"
import html.parser, json, sys
name = sys.argv[1]
story = json.load(open(name + ".json"))

class Page(html.parser.HTMLParser):
    def __init__(self):
        super().__init__()
        self.counts, self.rows, self.figures, self.drawn = {}, {}, 0, None
        self.count = self.part = None
    def handle_starttag(self, tag, attributes):
        attributes = dict(attributes)
        self.drawn = attributes.get("data-drawn", self.drawn)
        self.count = attributes.get("data-count")
        if attributes.get("role") == "region": self.part = attributes["aria-label"]
        if tag == "tr" and self.part: self.rows[self.part] = self.rows.get(self.part, -1) + 1  # but for the head
        if tag == "figure": self.figures += 1
    def handle_endtag(self, tag):
        if tag == "table": self.part = None
    def handle_data(self, text):
        if self.count: self.counts[self.count] = int(text)
        self.count = None

page = Page()
page.feed(open(name + ".dom").read())
expected = dict(story["counts"], unusual=len(story["unusual"]), left_out=story["left_out"])
assert page.counts == expected, (page.counts, expected)
assert int(page.drawn) == len(story["frames"]) > 20, (page.drawn, len(story["frames"]))
for part in ("devices", "unusual", "requests", "keys", "log"):
    assert page.rows.get(part, 0) == len(story[part]), (part, page.rows, len(story[part]))
assert page.figures == len(story["speech"]) + len(story["updates"]), page.figures
wanted = {"watched": story["unusual"] and story["keys"], "spoken": story["speech"], "updated": story["updates"]}
assert wanted[name], "nothing to see"
PYTHON
done
# What doctor has found stands above.
"$voxdesk" --virtual-time --desk desk.json doctor --out doctor.html >said || [ $? -eq 1 ]
load doctor
sed -n 's/^  \(#.*\): \(.*\)\.$/<td[^>]*>\1<.td><td[^>]*>\2</p' said >wanted
[ -s wanted ] || fail "doctor has found nothing"
while IFS= read -r row; do grep -q "$row" doctor.dom || fail "not on doctor's page: $row"; done <wanted
# Without a mouse: to the first frame, to the next unusual one, nearer, and back to the whole.
sed 's|</body>|<script>\
  const press = key => lanes.svg.dispatchEvent(new KeyboardEvent("keydown", {key, cancelable: true}));\
  const said = () => at("live").textContent;\
  press("Home"); const first = said(); press("ArrowRight"); const next = said(); press("u"); const unusual = said();\
  press("+"); const near = lanes.to - lanes.from; press("0");\
  at("live").dataset.keys = [first !== next, unusual.includes("no answer"), near < lanes.to / 1.9,\
    !!document.querySelector("rect.chosen"), !at("tip").hidden \&\& unusual.startsWith(at("tip").textContent)];\
</script></body>|' watched.html >keys.html
load keys
grep -q 'data-keys="true,true,true,true,true"' keys.dom || fail "keys: $(grep -o 'data-keys="[^"]*"' keys.dom)"
echo "report_page_test: all passed"
