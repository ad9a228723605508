// Sends one hit. The authorization server is that of the environment:
//
//	go build main.go
//	ORBIQ_AUTHORIZATION_SERVER=http://127.0.0.1:8080/auth/ ./main
package main

// #cgo pkg-config: orbiq
// #include <orbiq/orbiq_c.h>
// #include <stdlib.h>
import "C"

import (
	"errors"
	"log"
	"unsafe"
)

func check(status C.orbiq_status) error {
	if status >= 0 {
		return nil
	}
	return errors.New(C.GoString(C.orbiq_status_text(status)))
}

func describe(bundleIdentifier string) error {
	host := C.orbiq_host_new()
	defer C.orbiq_host_free(host)
	text := C.CString(bundleIdentifier)
	defer C.free(unsafe.Pointer(text))
	if err := check(C.orbiq_host_set_text(host, C.ORBIQ_BUNDLE_IDENTIFIER, text)); err != nil {
		return err
	}
	var reason [200]C.char
	status := C.orbiq_host_describe(host, &reason[0], C.size_t(len(reason)))
	if status == C.ORBIQ_ERROR_REFUSED {
		return errors.New(C.GoString(&reason[0]))
	}
	return check(status)
}

func sendHit(serial string) error {
	text := C.CString(serial)
	defer C.free(unsafe.Pointer(text))
	var tagger *C.orbiq_tagger
	if err := check(C.orbiq_tagger_with_serial(text, &tagger)); err != nil {
		return err
	}
	return check(C.orbiq_tagger_send_hit(tagger)) // returns at once
}

func main() {
	if err := describe("tv.example.player"); err != nil {
		log.Fatal(err)
	}
	if err := sendHit("ABC"); err != nil {
		log.Fatal(err)
	}
	// A program that goes on running is done here. This one would end before its hit has left.
	if err := check(C.orbiq_flush(10)); err != nil {
		log.Fatal(err)
	}
}
