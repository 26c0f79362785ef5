// Records what a device hears while its voice key is held: record FILE.wav. For Windows:
// GOOS=windows GOARCH=386 go build record.go, and VoxDeviceC.dll beside it.
package main

import (
	"bytes"
	"encoding/binary"
	"fmt"
	"log"
	"os"
	"syscall"
	"unsafe"
)

var library = syscall.NewLazyDLL("VoxDeviceC.dll")

type event struct {
	size         uint32
	kind, device int32
	value        [6]int32
}

const button, left, up, down = 16, 0, 0, 1

func call(name string, arguments ...uintptr) int32 {
	result, _, _ := library.NewProc(name).Call(arguments...)
	return int32(result)
}

func check(name string, arguments ...uintptr) uintptr {
	if result := call(name, arguments...); result >= 0 {
		return uintptr(result)
	}
	log.Fatal(name, " has failed")
	return 0
}

// The device whose voice key goes down (or up), or 0 when none does within so many milliseconds.
func voiceKey(what int32, ms uintptr) uintptr {
	for {
		next := event{size: 36}
		if check("vox_next_event", uintptr(unsafe.Pointer(&next)), ms) == 0 {
			return 0
		}
		if next.kind == button && next.value[0] == left && next.value[1] == what {
			return uintptr(next.device)
		}
	}
}

func main() {
	path := append(os.Args, "recording.wav")[1]
	hub := check("vox_hub_create")
	check("vox_hub_open", hub)
	fmt.Fprintln(os.Stderr, "Hold the voice key of a device and speak.")
	check("vox_hub_choose", hub, voiceKey(down, 60000))
	check("vox_record_start", hub)
	var speech, wav bytes.Buffer
	block := make([]int16, 4096)
	for count := int32(0); count >= 0; {
		count = call("vox_read", hub, uintptr(unsafe.Pointer(&block[0])), uintptr(len(block)), 100)
		if count > 0 {
			binary.Write(&speech, binary.LittleEndian, block[:count])
		}
		if voiceKey(up, 0) != 0 { // what is left is still read
			call("vox_record_stop", hub)
		}
	}
	check("vox_destroy", hub)
	length := uint32(speech.Len())
	for _, part := range []interface{}{[]byte("RIFF"), 36 + length, []byte("WAVEfmt "), uint32(16), uint32(0x10001),
		uint32(16000), uint32(32000), uint32(0x100002), []byte("data"), length, speech.Bytes()} {
		binary.Write(&wav, binary.LittleEndian, part)
	}
	if err := os.WriteFile(path, wav.Bytes(), 0o644); err != nil {
		log.Fatal(err)
	}
	fmt.Printf("%s: %.2f s\n", path, float64(length)/32000)
}
