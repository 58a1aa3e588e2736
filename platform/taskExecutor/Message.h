// The executor library's message type: what a TaskExecutor's handler
// receives. The cache never sends messages; it only disposes of them.
#pragma once

namespace veranda {

class Message {
 public:
  virtual ~Message() = default;
};

}  // namespace veranda
