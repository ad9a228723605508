// Sends one hit. The authorization server is that of the environment:
//
//     rustc --edition 2021 main.rs
//     ORBIQ_AUTHORIZATION_SERVER=http://127.0.0.1:8080/auth/ ./main
use std::ffi::{CStr, CString};
use std::os::raw::{c_char, c_double, c_int, c_void};

#[link(name = "orbiq")]
extern "C" {
    fn orbiq_host_new() -> *mut c_void;
    fn orbiq_host_free(host: *mut c_void);
    fn orbiq_host_set_text(host: *mut c_void, which: c_int, text: *const c_char) -> c_int;
    fn orbiq_host_describe(host: *const c_void, reason: *mut c_char, capacity: usize) -> c_int;
    fn orbiq_tagger_with_serial(serial: *const c_char, tagger: *mut *mut c_void) -> c_int;
    fn orbiq_tagger_send_hit(tagger: *mut c_void) -> c_int;
    fn orbiq_flush(seconds: c_double) -> c_int;
    fn orbiq_status_text(status: c_int) -> *const c_char;
}

const ORBIQ_BUNDLE_IDENTIFIER: c_int = 0;
const ORBIQ_ERROR_REFUSED: c_int = -2;

fn check(status: c_int) -> Result<(), String> {
    if status >= 0 {
        return Ok(());
    }
    Err(unsafe { CStr::from_ptr(orbiq_status_text(status)) }.to_string_lossy().into_owned())
}

fn describe(bundle_identifier: &CStr) -> Result<(), String> {
    let mut reason: [c_char; 200] = [0; 200];
    let status = unsafe {
        let host = orbiq_host_new();
        check(orbiq_host_set_text(host, ORBIQ_BUNDLE_IDENTIFIER, bundle_identifier.as_ptr()))?;
        let status = orbiq_host_describe(host, reason.as_mut_ptr(), reason.len());
        orbiq_host_free(host);
        status
    };
    if status == ORBIQ_ERROR_REFUSED {
        let reason = unsafe { CStr::from_ptr(reason.as_ptr()) };
        return Err(reason.to_string_lossy().into_owned());
    }
    check(status)
}

fn send_hit(serial: &CStr) -> Result<(), String> {
    let mut tagger = std::ptr::null_mut();
    unsafe {
        check(orbiq_tagger_with_serial(serial.as_ptr(), &mut tagger))?;
        check(orbiq_tagger_send_hit(tagger)) // returns at once
    }
}

fn main() -> Result<(), String> {
    describe(&CString::new("tv.example.player").unwrap())?;
    send_hit(&CString::new("ABC").unwrap())?;
    // A program that goes on running is done here. This one would end before its hit has left.
    check(unsafe { orbiq_flush(10.0) })
}
