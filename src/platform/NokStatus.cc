#include "platform/NokStatus.h"

const char* NOK_ReturnStatusToString(NOK_ReturnStatus status) {
  switch (status) {
    case NOK_OK: return "Success";
    case NOK_FAILURE: return "Failure";
    case NOK_NO_MEMORY: return "Out of memory";
    case NOK_NOT_FOUND: return "Not found";
    case NOK_EXISTS: return "Already exists";
    case NOK_PENDING: return "Pending";
    case NOK_BAD_PARAM: return "Bad parameter";
    case NOK_TIMEOUT: return "Timeout";
    case NOK_BUSY: return "Busy";
    case NOK_NO_CONNECTION: return "No connection";
    case NOK_IO_ERROR: return "I/O error";
  }
  return "Unknown status";
}
