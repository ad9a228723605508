#pragma once

#include <cstdint>

/// The enumerations that several rooms share. Their numbers are stored in the requests file and
/// must not change.
namespace orbiq {

/// Kind of a request. Every test asks only whether it is zero: any other number is streaming.
enum RequestType : std::int32_t {
  RequestTypeAudience = 0,
  RequestTypeStreaming = 1,
};

/// Where a request is sent. 0 and 2 are the serial modes; every other number acts as
/// `SendingModeHost`. After a request in `SendingModeSerialWithStop` that renews its session, its
/// stop is sent once.
enum SendingMode : std::uint64_t {
  SendingModeSerial = 0,
  SendingModeHost = 1,
  SendingModeSerialWithStop = 2,
};

/// State of a request in the queue. The gap at 2 is meant: that number is never assigned.
enum RequestStatus : std::int32_t {
  RequestStatusWaiting = 0,
  RequestStatusSending = 1,
  RequestStatusFailed = 3,
};

/// What an account may send. Other numbers come only out of an archive and act as full access.
enum AccessMode : std::int32_t {
  AccessModeFull = 0,
  AccessModeRestricted = 1,
  AccessModeDenied = 2,
};

/// Severity of a log line, and the threshold below which lines are not printed.
enum LoggingMode : std::uint64_t {
  LoggingModeInfo = 0,
  LoggingModeWarning = 1,
  LoggingModeError = 2,
};

/// The way to a network target.
enum ReachabilityStatus : std::uintptr_t {
  ReachabilityStatusNotReachable = 0,
  ReachabilityStatusViaWWAN = 1,
  ReachabilityStatusViaWiFi = 2,
};

}  // namespace orbiq
