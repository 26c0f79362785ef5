#!/bin/sh
# The client as its users run it: outputs, exit codes, messages. Usage: voxdesk_test.sh VOXDESK SAMPLES
set -eu
voxdesk=$1
sample=$2/sentence.wav
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
cd "$dir"

fail() {
  echo "voxdesk_test: $1" >&2
  sed 's/^/  out: /' out >&2
  sed 's/^/  err: /' err >&2
  exit 1
}
# expect CODE ARGUMENTS...: runs voxdesk and checks its exit code.
expect() {
  code=$1
  shift
  got=0
  "$voxdesk" "$@" >out 2>err || got=$?
  [ "$got" -eq "$code" ] || fail "exit code $got instead of $code: voxdesk $*"
}
out() { grep -qF -- "$1" out || fail "not on standard output: $1"; }
err() { grep -qF -- "$1" err || fail "not on standard error: $1"; }

# The main job.
expect 0 --virtual-time
out "VoxMouse Wren, USB, battery 80 %, DPI 1600, identity WR0123456789ABCDEF"
out "VoxMouse Heron Plus, Bluetooth LE, battery 64 %, DPI 1200"
out "VoxMouse Tern, USB, battery 93 %, DPI 800"
out "wrote voxdesk-recording.wav: 5."
out "Stopped: nothing is left open."
[ "$(wc -c <voxdesk-recording.wav)" -gt 170000 ] || fail "the recording is too short"
# (The address sanitizer has a word to say about fibers.)
! grep -qv 'ASan does' err || fail "something on standard error"

expect 0 --virtual-time devices --json
[ "$(grep -c '"event":"device"' out)" -eq 3 ] || fail "three devices"
out '"device":3,"model":"VoxMouse Tern","link":"USB","battery":93,"dpi":800'

expect 0 --virtual-time monitor --seconds 12
out "9.010 s  left button down"
out "log 33 (double click): 语音键双击：0  100  200  310 = double click of the voice key: 0  100  200  310"
out "#4  VoxMouse Tern connected over USB"

expect 0 --virtual-time record --device 3 --speech "$sample" --out tern.wav --seconds 2 --json
out '"event":"recorded","file":"tern.wav"'
[ "$(wc -c <tern.wav)" -ge 64044 ] || fail "two seconds are at least 64000 bytes"

# Quiet: what was asked for, and nothing else.
expect 0 -V
out "voxdesk 0."
expect 0 --virtual-time devices
out "Looking for devices"
head -c 64 "$sample" >a.bin
while IFS='|' read -r lines arguments; do
  # shellcheck disable=SC2086
  expect 0 --virtual-time $arguments
  [ "$(wc -l <out)" -eq "$lines" ] || fail "not $lines lines"
done <<'QUIET'
1|--quiet --out quiet.wav
4|devices -q
1|state --device 2 -q
6|update -q --yes --first a.bin
QUIET
expect 2 -q --json devices

# What goes wrong is explained.
expect 1 --virtual-time record --device 9 --speech "$sample" --out x.wav
err "no device has the number 9; there are: 1 (VoxMouse Wren), 2 (VoxMouse Heron Plus), 3 (VoxMouse Tern)"
expect 1 record --speech "$voxdesk" --out x.wav
err "not a WAV file"
expect 1 record --speech "$sample" --out nowhere/x.wav
err "nowhere/x.wav: No such file or directory"
expect 2 record --out x.wav
err "--speech is required"
expect 2 doctor --virtual-time --seconds 1
err "--seconds: devices need 4 s"
expect 2 doctor --virtual-time --out -
err "--out: standard output does not take this; name a file"
expect 2 monitor --virtual-time --seconds nan
err 'expected a number from 0.001 to 86400, not "nan"'
cp "$sample" mine.wav
expect 2 --virtual-time record --speech mine.wav --out x.wav --picture mine.wav
err "--picture: mine.wav is the file of --speech, too"
expect 2 --virtual-time --capture x.wav record --speech mine.wav --out x.wav
err "--capture: x.wav is the file of --out, too"
expect 2 update --virtual-time --yes --first mine.wav --capture ./mine.wav
err "--capture: ./mine.wav is the file of --first, too"
expect 2 report mine.wav --out mine.wav
err "--out: mine.wav is the file of the report, too"
cmp -s mine.wav "$sample" || fail "a file that is read was written over"
ln -s nothing.wav link.wav
expect 0 --virtual-time --out link.wav
[ -L link.wav ] && [ -s nothing.wav ] || fail "a link that led nowhere was replaced"
expect 2 monitor --virtual-time
err "needs --seconds"
expect 0 --help
out "docs/desk-file.md"

# Commands to one device.
expect 0 --virtual-time state --device 3
out "#3  VoxMouse Tern, USB, battery 93 %, DPI 800"
out "#3  receiver state 4660"
expect 0 --virtual-time dpi --device 2 2400
out "#2  DPI 2400 set"
expect 2 dpi 0
expect 0 --virtual-time url example.com/x --json
out '"event":"url","device":1,"ok":true'
expect 1 --virtual-time url http://x
err "leave out the scheme and its colon"
expect 0 --virtual-time mkey list
out "M key 1 has function 2 of 1 2 3 4"
expect 0 --virtual-time mkey set 3
out "M key 1 has function 3"
expect 1 --virtual-time mkey set 9
err "does not support function 9; it has [1,2,3,4]"
expect 2 mkey

# Firmware.
head -c 20000 "$sample" >a.bin
head -c 3000 "$sample" >b.bin
: >empty.bin
expect 0 --virtual-time update --yes --device 3 --first a.bin --second b.bin
out "first image [====="
out "kB/s"
out "the first image (a.bin, 20000 bytes): done"
out "the second image (b.bin, 3000 bytes): done"
expect 0 --virtual-time update --yes --first a.bin --json
out '"event":"update-progress","done":16,"total":20000'
out '"event":"image","image":"first","file":"a.bin","bytes":20000,"state":8,"result":"done"'
expect 1 --virtual-time update --yes --device 2 --first a.bin --second b.bin
err "over Bluetooth LE there is no receiver"
expect 1 --virtual-time update --yes --first none.bin
err "none.bin: No such file or directory"
expect 1 --virtual-time update --yes --first empty.bin
err "empty.bin: empty; expected a firmware image"
expect 1 --virtual-time update --yes --first .
err ".: not a file of bytes"
expect 2 update
err "--first or --second is required"

# The computer's own sound.
expect 0 --virtual-time sound
out "  2  Microphone (VoxMouse Lark)   the voice keyboard's, as there is no mouse's"
out "Sound card: VoxMouse Pipit"
out "Speaker: 16000 Hz, 1 channel"
expect 0 --virtual-time mic --device pipit --out mic.wav --seconds 2 --json
out '"event":"recorded","file":"mic.wav"'
expect 1 --virtual-time mic --device Tape --out mic.wav
err 'no name contains "Tape"; there are: Line In (HD Audio), Microphone (VoxMouse Pipit), Microphone (VoxMouse Lark)'
expect 0 --virtual-time speaker --out speaker.wav
cmp speaker.wav "$sample" || fail "16 kHz mono is recorded as it is played"
expect 2 mic
# Names command no terminal, and break no line.
printf '{"sound": {"microphones": [{"name": "A\\u001b[31m\\u009b1mB\\nC"}]}}' >named.json
expect 0 --virtual-time --desk named.json sound
out "  0  A?[31m?1mB?C"
expect 1 --virtual-time --desk named.json mic --device=no= --out mic.wav
err 'no name contains "no="; there are: A?[31m?1mB'
cat >sound.json <<'JSON'
{"sound": {"microphones": [{"name": "VoxMouse Tern", "hears": "speaker.wav"}],
           "endpoints": [{"name": "VoxMouse Tern", "volume": 20, "muted": true}],
           "speaker": {"plays": "speaker.wav", "integers": true}}}
JSON
expect 0 --virtual-time --desk sound.json sound --json
out '"event":"capture-device","index":0,"name":"VoxMouse Tern","chosen":true'
out '"event":"endpoint","index":0,"name":"VoxMouse Tern","volume":0.2,"muted":true'
expect 1 --virtual-time --desk sound.json speaker --out x.wav
err "the speaker cannot be recorded"
printf '{"sound": {"microphones": [{"nam": "x"}]}}' >bad.json
expect 1 --desk bad.json sound
err 'bad.json.sound.microphones[0]: no entry is called "nam"; there are: name, hears'

# Older hardware.
expect 0 --virtual-time legacy --seconds 20
out "plugged in: mouse (or nothing), identity mouse01, revision 1"
out "2.020 s  left key down"
out "10.100 s  log 33 (double click): 程序切换到“激光笔”模式 = switched to laser-pen mode"
out "10.100 s  tray: 程序切换到“鼠标”模式"
out "working mode: laser pen"
cat >legacy.json <<'JSON'
{"legacy": [{"kind": "voice-keyboard", "timeline": [{"at": 1, "key": 65}, {"at": 2, "key": 101}]},
            {"kind": "laser-pen", "serial": "abvx0pipit", "timeline": [{"at": 3, "unplug": true}]}]}
JSON
expect 0 --virtual-time --desk legacy.json legacy --seconds 10 --json
out '"event":"hardware","kind":2,"identity":"abvx0pipit","sound":0,"revision":1'
out '"event":"tray","text":"语音键盘电量低，请充电"'
expect 2 legacy --virtual-time

# Desk files: what they can do, and how a mistake is reported.
cat >desk.json <<'JSON'
{"devices": [
  {"model": "Finch", "battery": 7, "dpi": 400},
  {"model": "Wren", "link": "bluetooth", "faults": [{"command": "voice-open", "answer": "refuse"}]},
  {"model": "Tern", "faults": [{"command": "all", "answer": "silent"}]},
  {"model": "Swift", "faults": [{"open": "refused"}],
   "timeline": [{"at": 1, "key": "0"}, {"at": 2, "unplug": true}]}
]}
JSON
expect 0 --virtual-time --desk desk.json devices
[ "$(grep -c VoxMouse out)" -eq 2 ] || fail "two devices answer"
out "VoxMouse Finch  Bluetooth LE      7 %   400  192-168-1-2-3-255"
expect 1 --virtual-time --desk desk.json record --device 2 --speech "$sample" --out x.wav
err "the device refused to open its voice channel"

cat >firmware.json <<'JSON'
{"devices": [
  {"model": "Wren", "faults": [{"command": "ota-data", "answer": "refuse", "message": 3},
                               {"command": "ota-open", "answer": "silent", "image": "second"}]},
  {"model": "Tern", "faults": [{"command": "ota-complete", "answer": "unplug"}]},
  {"model": "Wren", "link": "bluetooth", "faults": [{"command": "set-dpi", "answer": "silent"}]}
]}
JSON
expect 1 --virtual-time --desk firmware.json update --yes --first a.bin --second b.bin --json
out '"image":"first","file":"a.bin","bytes":20000,"state":6,"result":"refused by the device at sending data"'
out '"image":"second","file":"b.bin","bytes":3000,"state":3,"result":"no answer from the device within 3.1 s at opening"'
err "the update did not succeed"
# (What the library prints of its own accord stays out of the way.)
! grep -qv '^{' out || fail "a line that is no object"
expect 1 --virtual-time --desk firmware.json update --yes --device 2 --first a.bin
err "the device went away during the update"
expect 1 --virtual-time --desk firmware.json dpi --device 3 800
err "device 3 (VoxMouse Wren) did not answer within 1.0 s"

mistake() {
  printf '%s' "$1" >bad.json
  expect 1 --virtual-time --desk bad.json devices
  err "$2"
}
mistake '{"devices": [}' 'bad.json: parse error at line 1, column 14'
mistake '[]' 'bad.json: expected an object, found []'
mistake '{"devices": {}}' 'bad.json.devices: expected a list, found {}'
mistake '{"devices": [{"link": "usb"}]}' 'bad.json.devices[0]: "model" is missing'
mistake '{"devices": [{"model": "Gull"}]}' 'bad.json.devices[0].model: expected one of: Tern, Wren, Finch'
mistake '{"devices": [{"model": "Finch", "link": "usb"}]}' 'expected "bluetooth" for a Finch, found "usb"'
mistake '{"devices": [{"model": "Wren", "batery": 3}]}' 'no entry is called "batery"; there are: model, link, battery'
mistake '{"devices": [{"model": "Wren", "battery": 256}]}' 'expected a whole number from 0 to 255, found 256'
mistake '{"devices": [{"model": "Wren", "battery": 1e99}]}' 'expected a whole number from 0 to 255'
mistake '{"devices": [{"model": "Wren", "speech": "none.wav"}]}' 'none.wav: No such file or directory'
mistake '{"devices": [{"model": "Wren", "timeline": [{"at": 1}]}]}' 'timeline[0]: expected "at" and one of key, power'
mistake '{"legacy": [{"kind": "joystick"}]}' 'bad.json.legacy[0].kind: expected one of: hid-mouse, laser-pen'
mistake '{"legacy": [{"kind": "laser-pen", "timeline": [{"at": 1, "press": "F1"}]}]}' 'press: expected one of: F15, F16'
expect 1 --desk none.json devices
err "none.json: No such file or directory"

# A device that is pulled out in the middle: what it had sent is kept.
cat >pulled.json <<'JSON'
{"devices": [{"model": "Wren", "timeline": [{"at": 4, "unplug": true}]}]}
JSON
expect 1 --virtual-time --desk pulled.json record --device 1 --speech "$sample" --out kept.wav
err "the device went away during the recording; kept.wav holds what it had sent"
[ "$(wc -c <kept.wav)" -gt 50000 ] || fail "two seconds had come"
# What was there before stays until there is a first sample.
printf '{"devices": [{"model": "Wren", "timeline": [{"at": 2.07, "unplug": true}]}]}' >early.json
cp kept.wav before.wav
expect 1 --virtual-time --desk early.json record --speech "$sample" --out before.wav
err "the device went away during the recording; nothing has been recorded, and before.wav is not written"
cmp kept.wav before.wav || fail "a recording without a sample has destroyed another"

# What passes is captured, and the capture is a desk.
expect 0 --virtual-time --out live.wav --capture case.pcapng
out "Captured in case.pcapng: "
expect 0 --virtual-time --desk case.pcapng --out again.wav
out "Recorded device 1: 392 of its 392 reports were sent."
cmp live.wav again.wav || fail "the speech differs"
expect 1 --virtual-time --desk case.pcapng dpi 800 --json
out 'the recording does not hold SetDpi.'
expect 1 --virtual-time monitor --seconds 3 --capture nowhere/case.pcapng
err "nowhere/case.pcapng: No such file or directory"
head -c 3000 case.pcapng >cut.pcapng
expect 0 --virtual-time --desk cut.pcapng devices
err "cut.pcapng: at "
echo '{"devices": [{"replay": "case.pcapng", "device": 1}]}' >replay.json
expect 1 --virtual-time --desk replay.json --capture case.pcapng devices
err "case.pcapng is what is replayed; capture into another file"
cat >refusing.json <<'JSON'
{"devices": [{"model": "Wren", "faults": [{"command": "ota-open", "answer": "refuse", "image": "second"}]}]}
JSON
head -c 330 "$voxdesk" >image.bin
expect 1 --virtual-time --desk refusing.json update --yes --first image.bin --second image.bin --capture refused.pcapng
out "refused by the device at opening"
expect 1 --virtual-time --desk refused.pcapng update --yes --first image.bin --second image.bin
out "refused by the device at opening"
mistake '{"devices": [{"replay": "case.pcapng", "device": 4}]}' 'there is no device 4 in this capture; it has 3'
expect 0 --virtual-time monitor --raw --seconds 3
out "#1  -> 05 ff f1 fe c0 0c 00 ef 00 00"
out "#1  <- 05 ff f1 fe c0 9c 0b 00 01 06 40 50 c0 a8 01 02 03 ff ef"
expect 0 --virtual-time send 05FFF1:FEC0 0602012CEF --wait 100
out "#1  -> 05 ff f1 fe c0 06 02 01 2c ef"
out "#1  <- 05 ff f1 fe c0 96 03 01 2c 00 ef"
expect 1 --virtual-time send 05FFF1FEC00800EF
err "belongs to a firmware update"
expect 1 --virtual-time send 05F
err "two digits to each byte"

# What it tells.
expect 0 report case.pcapng --out told.html --wav speech
out "wrote told.html"
out "wrote speech/speech-001-device-1.wav: 5.64 s of speech"
cmp speech/speech-001-device-1.wav live.wav || fail "what the client got, from the wire"
expect 0 report case.pcapng
out "  #1 Wren               USB, 6D8C:6137, battery 80 %, DPI 1600, serial number WR0123456789ABCDEF"
expect 0 report case.pcapng --json --slow 1
out '"kind": "slow"'
expect 0 report cut.pcapng
err "voxdesk: not all could be read: at "
expect 1 report "$sample"
err "sentence.wav: neither pcapng nor pcap"
expect 2 report

# An endless source has no end in virtual time.
printf '{"sound": {"microphones": [{"name": "VoxMouse Tern"}]}}' >endless.json
expect 2 --virtual-time --desk endless.json mic --out endless.wav
err "needs --seconds"
[ ! -e endless.wav ] || fail "a file without a recording"

# Devices have names, and options a meaning or none.
cat >twins.json <<'JSON'
{"devices": [{"model": "Wren", "serial": "WR0123456789ABCDEF"}, {"model": "Heron"}, {"model": "Heron Plus"},
             {"model": "Finch"}, {"model": "Finch"}]}
JSON
while IFS='|' read -r code name said; do
  expect "$code" --virtual-time --desk twins.json state --device "$name"
  cat err >>out
  out "$said"
done <<'NAMES'
0|wren|VoxMouse Wren, USB
0|voxmouse heron|VoxMouse Heron, Bluetooth LE
0|HERON PLUS|VoxMouse Heron Plus
0|wr0123456789abcdef|VoxMouse Wren, USB
0|VID_6D8C|VoxMouse Wren, USB
1|Finch|"Finch" may be any of: 
1|Tern|no device is called "Tern"; there are: 1 (
2|0|devices are numbered from 1
2||a number or a name is missing
NAMES
while IFS='|' read -r arguments option; do
  # shellcheck disable=SC2086
  expect 2 $arguments
  err "$option"
done <<'REFUSED'
moniter|there is no command "moniter"; the nearest is "monitor"
mkey lst|there is no command "mkey lst"; the nearest is "mkey list"
mkey --bogus|mkey: expected one of its commands
devices --verbose=|--verbose: takes no value
foo|there is no command "foo"; voxdesk --help lists them
--bogus devices|devices does not take "--bogus"; voxdesk devices --help
--out x.wav devices|--out: devices does not take this option
--out x.wav mic --out y.wav|--out: stands behind its command, as in voxdesk mic --out
--format raw mic --out y.wav|--format: stands behind its command, as in voxdesk mic --format
mkey --device tern set 3|--device: stands behind its command, as in voxdesk mkey set --device
mic --out x.wav --out y.wav|--out: given more than once
mic --out=|--out: a value is missing
mic --out x.wav --format mp3|--format: expected wav or raw, not "mp3"
dpi abc|DPI: expected a whole number from 1 to 32767, not "abc"
dpi 0800|not "0800"
devices --seconds 3|--seconds: devices does not take this option
--out= devices|--out: a value is missing
mkey set 3 4|mkey set does not take "4"; voxdesk mkey set --help says what it takes
mkey list --out x.wav|--out: mkey list does not take this option
report case.pcapng --virtual-time|--virtual-time: report does not take this option
report case.pcapng --text --json|--json excludes --text
REFUSED
expect 0 dpi --help
out "--capture"
! grep -qF -- --seconds out || fail "--seconds does nothing for dpi"

# Sound on standard output; messages, or events, beside it.
expect 0 --virtual-time speaker --out - --format raw --json
err '"event":"recorded","file":"-"'
tail -c +45 "$sample" | cmp - out || fail "raw samples"
expect 0 --virtual-time speaker --out -
err "wrote standard output: "
{ printf 'RIFF\377\377\377\377'; head -c 40 "$sample" | tail -c +9; printf '\377\377\377\377'; tail -c +45 "$sample"; } | cmp - out ||
  fail "a stream of unknown length"

# An update is not begun by mistake.
expect 2 --virtual-time update --first a.bin </dev/null
err "--yes begins it"
expect 0 --virtual-time update --yes --first a.bin --second ./a.bin
err "warning: both images are the same file"

# What follows wants signals and pipes of Linux.
case $(head -c 2 "$voxdesk") in '#!') echo "voxdesk_test: all passed, without signals"; exit ;; esac

# riff FILE: its sizes are those of the file, less what has just come, and there is a second of sound.
riff() {
  python3 - "$1" <<'PYTHON' || fail "$1 is not whole"
import os, struct, sys
size = os.path.getsize(sys.argv[1])
with open(sys.argv[1], "rb") as file:
    riff, data = struct.unpack("<4xI32xI", file.read(44))
sys.exit(not (riff == data + 36 and 32000 <= data <= size - 44 < data + 4000))
PYTHON
}
# until_seen PATTERN FILE
until_seen() {
  for _ in $(seq 200); do
    ! grep -qE "$1" "$2" || return 0
    sleep 0.1
  done
  fail "not within 20 s: $1"
}
# start ARGUMENTS...: runs voxdesk beside this script. What was there before is not taken for its output.
start() {
  : >out
  : >err
  env --default-signal=QUIT "$voxdesk" "$@" >out 2>err &
  pid=$!
}
# begin ARGUMENTS...: ... until it has recorded two seconds.
begin() {
  start "$@"
  until_seen 'recording +[2-9]\.|"seconds":[2-9]\.' out
}
# ends CODE: how it ends.
ends() {
  got=0
  wait "$pid" || got=$?
  [ "$got" -eq "$1" ] || fail "exit code $got instead of $1"
}
ulimit -c 0
# Each signal leaves a recording: what ends the work by our rule, and what ends the program where it stands.
for case in INT:130 TERM:130 HUP:130 QUIT:131 KILL:137; do
  begin mic --device Pipit --out stopped.wav --json
  kill "-${case%:*}" "$pid"
  ends "${case#*:}"
  riff stopped.wav
  [ "${case#*:}" -ne 130 ] || err "voxdesk: interrupted"
done
# Asked twice at once is asked once; later it is the end. A file that was there is kept until there is another.
begin record --speech "$sample" --out stopped.wav
kill -HUP "$pid"
kill -TERM "$pid"
ends 130
out "wrote stopped.wav"
cp stopped.wav before.wav
for command in devices "dpi 800" "record --speech $sample --out before.wav" "--out before.wav"; do
  # shellcheck disable=SC2086
  start $command
  until_seen '^Name:[[:space:]]*voxdesk$' "/proc/$pid/status"  # and no shell, which catches signals, too
  until_seen '^SigCgt:.*[2367abef]$' "/proc/$pid/status"
  kill -INT "$pid"
  ends 130
  err "interrupted before a device had answered"
done
cmp stopped.wav before.wav || fail "a recording that has not begun has destroyed another"
# An update goes on after the first, and ends by the second.
head -c 60000 "$sample" >long.bin
for case in 1:0 2:130; do
  start update --yes --first long.bin
  until_seen 'first image \[' out
  kill -INT "$pid"
  sleep 1
  err "the update goes on"
  [ "${case%:*}" -eq 1 ] || kill -INT "$pid"
  ends "${case#*:}"
done
err "ended at once"

# A pipe that nobody reads is waited for until Ctrl-C; none is read.
mkfifo pipe
for command in "--out pipe" "--picture pipe" "--capture pipe devices" "conform --junit pipe"; do
  # shellcheck disable=SC2086
  start --virtual-time $command
  until_seen 'pipe: waiting until somebody reads' err
  kill -INT "$pid"
  ends 130
  err "pipe: interrupted before anybody read this pipe"
done
# So is the next part of a capture, by the thread that writes it.
mkfifo part-2.pcapng
start --virtual-time --capture part.pcapng --capture-size 0.1 record --speech "$sample" --seconds 60 --out x.wav
until_seen 'part-2.pcapng: waiting until somebody reads' err
kill -INT "$pid"
ends 1
err "the capture is not whole: part-2.pcapng: interrupted before anybody read this pipe"
for command in "--desk pipe devices" "record --speech pipe --out x.wav" "report pipe"; do
  # shellcheck disable=SC2086
  expect 1 $command
  err "pipe: not a file of bytes; expected a"
done

# Standard output that is closed, full, or read no more; a disk that is full.
for command in --help devices sound "mic --device Pipit --seconds 1 --out full.wav" "report case.pcapng"; do
  for output in /dev/full '&-'; do
    case $command in --help | report*) time= ;; *) time=--virtual-time ;; esac
    rm -f full.wav
    got=0
    eval "\"$voxdesk\" $time $command >$output 2>err" || got=$?
    [ "$got" -eq 1 ] || fail "exit code $got: $command >$output"
    err "voxdesk: standard output"
  done
done
for command in monitor "speaker --out - --format raw"; do
  # shellcheck disable=SC2086
  { got=0; "$voxdesk" $command 2>err || got=$?; echo "$got" >code; } | head -c 100 >out
  [ "$(cat code)" -eq 130 ] || fail "exit code $(cat code): $command"
  err "interrupted: nobody reads standard output any more"
done
expect 1 --virtual-time --capture /dev/full devices
err "the capture is not whole: /dev/full: No space left on device"
! grep -q Captured out || fail "what is not captured"
expect 1 --virtual-time conform --junit nowhere/x.xml
[ ! -s out ] || fail "the rules are tried for nothing"
expect 1 --virtual-time speaker --out /dev/full
err "/dev/full: No space left on device; nothing has been recorded"
got=0
(ulimit -f 200; "$voxdesk" --virtual-time speaker --out limit.wav >out 2>err) || got=$?
[ "$got" -eq 1 ] || fail "exit code $got on a full disk"
err "limit.wav: File too large; it holds the first 3.20 s"
riff limit.wav

# On a terminal: an update asks, and the level fits.
terminal() { TERM=${term:-xterm} script -qec "stty cols ${columns:-60}; \"$voxdesk\" --virtual-time $1" script.log >out 2>err; }
for case in y:0 n:1; do
  got=0
  echo "${case%:*}" | terminal "update --first a.bin" || got=$?
  [ "$got" -eq "${case#*:}" ] || fail "exit code $got after the answer ${case%:*}"
  out "a.bin, 20000 bytes in 1250 blocks, for the device itself"
done
terminal "--out x.wav"
! sed -n '/voice channel closed/,$p' out | grep -q '\[' || fail "a level after the end of the voice channel"
for columns in 30 40 60; do
  terminal "--out x.wav"
  tr '\r' '\n' <out | sed 's/\x1b\[K//g' | grep recording | awk "length >= $columns" | grep . && fail "a level of $columns columns"
  out "recording"
done
term=dumb terminal "--out x.wav"
! grep -q "$(printf '\033')" out || fail "a terminal that does not know how is asked to erase a line"
echo "voxdesk_test: all passed"
