// The outcome of an operation that can fail, with a message that says what
// went wrong and where.
#ifndef KOVRAN_FRAME_STATUS_H_
#define KOVRAN_FRAME_STATUS_H_

#include <string>
#include <utility>

namespace frame {

class Status {
 public:
  static Status Ok() { return Status(); }
  static Status Error(std::string message) {
    Status s;
    s.ok_ = false;
    s.message_ = std::move(message);
    return s;
  }
  bool ok() const { return ok_; }
  const std::string& message() const { return message_; }

 private:
  bool ok_ = true;
  std::string message_;
};

}  // namespace frame

#endif  // KOVRAN_FRAME_STATUS_H_
