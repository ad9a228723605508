#pragma once

#include <cstdint>

/// Everything whose name has no prefix. The numbers below are stored in the requests file and must
/// not change.
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

/// State of a request in the queue. No request has ever had number 2.
enum RequestStatus : std::int32_t {
  RequestStatusWaiting = 0,
  RequestStatusSending = 1,
  RequestStatusFailed = 3,
};

}  // namespace orbiq
