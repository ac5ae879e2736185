// The bounded queue that carries the host's commands (keys, error codes) from the host's
// threads to the call processor's polling thread, so that no host thread enters the protocol
// stacks. Payloads are copied in and out: a writer's buffer may live on its stack.
//
// Thread rules: any number of writers and readers; one leaf lock, held for each whole
// operation. Nothing is called under it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

#include "core/module.h"

namespace deskline {

class CMailbox final : public CModule {
 public:
  static constexpr std::uint32_t kMaxItems = 100;
  static constexpr std::int32_t kMaxPayload = 200;

  CMailbox();
  ~CMailbox() override;

  // Makes the queue. 0, or 1 when it cannot be allocated.
  int Start() override;
  // Drops what is queued, unread, and the queue. 0.
  int Shutdown() override;

  // Queues a copy of `length` bytes (1 to 200). 0, or 1 when the queue is missing or full, the
  // length is out of range or `payload` is null. Nothing queued is ever displaced.
  int Write(std::uint32_t code, const void* payload, std::int32_t length);
  // Takes the oldest message; `payload` must hold 200 bytes. 0, or 1 when there is none, in
  // which case the caller's variables are left as they were.
  int Read(std::uint32_t* code, void* payload, std::int32_t* length);

 private:
  struct Item {
    std::uint32_t code;
    std::int32_t length;
    std::uint8_t payload[kMaxPayload];
  };
  // A fixed ring of items, allocated once at Start: the same bounded FIFO without an
  // allocation per key press.
  struct Queue {
    Item items[kMaxItems];
    std::uint32_t head = 0;  // the oldest item
    std::uint32_t count = 0;
  };

  std::mutex lock_;
  std::unique_ptr<Queue> queue_;
};

}  // namespace deskline
