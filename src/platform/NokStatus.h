// Status codes of the host services (kernel, directory, storage). Plain
// functions that talk to host services return one of these instead of
// throwing; the class layers turn failures into OrvaCtlException.
#pragma once

#include <cstdint>

typedef uint32_t NOK_ReturnStatus;

constexpr NOK_ReturnStatus NOK_OK = 0;
constexpr NOK_ReturnStatus NOK_FAILURE = 0xbad0001;
constexpr NOK_ReturnStatus NOK_NO_MEMORY = 0xbad0002;
constexpr NOK_ReturnStatus NOK_NOT_FOUND = 0xbad0003;   // the entry or object is absent
constexpr NOK_ReturnStatus NOK_EXISTS = 0xbad0005;      // already there (or newer)
constexpr NOK_ReturnStatus NOK_PENDING = 0xbad0004;     // asynchronous result not yet known
constexpr NOK_ReturnStatus NOK_BAD_PARAM = 0xbad0006;
constexpr NOK_ReturnStatus NOK_TIMEOUT = 0xbad0007;
constexpr NOK_ReturnStatus NOK_BUSY = 0xbad0008;
constexpr NOK_ReturnStatus NOK_NO_CONNECTION = 0xbad0009;
constexpr NOK_ReturnStatus NOK_IO_ERROR = 0xbad000a;

// A readable name of the status, for messages ("Not found", ...).
const char* NOK_ReturnStatusToString(NOK_ReturnStatus status);
