// The one exception type through which every failure of the service reaches
// a caller. Its message is the service's fixed text with the offending value
// and is meant to be shown to an operator unchanged.
#pragma once

#include <exception>
#include <string>

namespace HostCtl {
namespace Lib {

class HostCtlException : public std::exception {
 public:
  explicit HostCtlException(std::string message) : message_(std::move(message)) {}
  const std::string& GetMessage() const noexcept { return message_; }
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  std::string message_;
};

namespace Orva {

class OrvaCtlException : public HostCtlException {
 public:
  using HostCtlException::HostCtlException;
};

}  // namespace Orva
}  // namespace Lib
}  // namespace HostCtl
