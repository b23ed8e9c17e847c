#include "message_queue.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <stdexcept>
#include <utility>

#include "endpoint.h"

namespace zorvix::detail {
namespace {

constexpr std::size_t kElementsOfBlock = 32;

// Returns 8, 16, 32 or 64.
std::size_t SlotSize(std::size_t size) {
  std::size_t slot_size = 8;
  while (slot_size < size) slot_size *= 2;
  return slot_size;
}

// Copies a slot of one of these sizes.
void CopySlot(void* to, const void* from, std::size_t size) {
  switch (size) {
    case 8:
      std::memcpy(to, from, 8);
      return;
    case 16:
      std::memcpy(to, from, 16);
      return;
    case 32:
      std::memcpy(to, from, 32);
      return;
    default:
      std::memcpy(to, from, 64);
  }
}

}  // namespace

std::size_t CheckedDepth(KeepLast keep) {
  if (keep.depth == 0) throw std::invalid_argument("the depth of a queue must be at least 1");
  return keep.depth;
}

void MessageQueue::Taken::Reset() {
  if (std::exchange(has_message, false) && !queue_.is_in_place_) queue_.type_.destroy(stored.copy);
  reply.Reset();
}

MessageQueue::MessageQueue(const char* its_kind, const std::string& its_name, Module& its_module,
                           std::shared_ptr<Strand> strand, const MessageType& type,
                           Callable callable, KeepLast keep, const std::type_info* answer_type)
    : Queue(its_kind, its_name, its_module, std::move(strand)),
      type_(type),
      answer_type_(answer_type),
      is_in_place_(type.size_in_place != 0),
      slot_size_(SlotSize(type.size_in_place)),
      element_size_(slot_size_ + (answer_type == nullptr ? 0 : sizeof(ReplyOwner))),
      depth_(CheckedDepth(keep)),
      callable_(std::move(callable)),
      pending_(element_size_, std::min(depth_, kElementsOfBlock)),
      turns_(sizeof(Turn), std::min(depth_, kElementsOfBlock)) {}

void MessageQueue::Push(const std::any& message) {
  if (Push(message, Expected()) != Pushed::kOtherType) return;
  const Gate::Pass pass(gate_);  // for the type, which is in the module
  if (!pass.admitted()) return;
  throw TypeMismatch("message", message.type(), "subscriber", *type_.type);
}

void MessageQueue::PushRequest(const std::any& request, ReplyOwner reply,
                               const std::type_info& wanted_answer) {
  const Pushed pushed = Push(request, {std::move(reply), &wanted_answer});
  if (pushed == Pushed::kYes || pushed == Pushed::kClosed) return;
  const Gate::Pass pass(gate_);
  if (!pass.admitted()) return;
  if (pushed == Pushed::kOtherType) {
    throw TypeMismatch("request", request.type(), "server", *type_.type);
  }
  throw TypeMismatch("answer", *answer_type_, "client", wanted_answer);
}

MessageQueue::Pushed MessageQueue::Push(const std::any& message, Expected expected) {
  return is_in_place_ ? PushInPlace(message, expected) : PushCopy(message, expected);
}

MessageQueue::Pushed MessageQueue::PushInPlace(const std::any& message, Expected& expected) {
  Taken dropped(*this);
  bool is_first_drop = false;
  {
    const Lock lock(mutex_);
    if (IsClosed()) return Pushed::kClosed;
    if (!GivesAnswer(expected)) return Pushed::kOtherAnswer;
    MakeRoom();
    if (!type_.store(message, pending_.next())) return Pushed::kOtherType;
    AddStored(expected.reply, dropped);
    is_first_drop = dropped.has_message && dropped_in_a_row_ == 1;
  }
  AfterAdd(is_first_drop);
  return Pushed::kYes;
}

MessageQueue::Pushed MessageQueue::PushCopy(const std::any& message, Expected& expected) {
  bool is_first_drop = false;
  {
    const Gate::Pass pass(gate_);
    if (!pass.admitted()) return Pushed::kClosed;
    if (!GivesAnswer(expected)) return Pushed::kOtherAnswer;
    Taken copy(*this);
    copy.has_message = type_.store(message, &copy.stored);
    if (!copy.has_message) return Pushed::kOtherType;
    copy.reply = std::move(expected.reply);
    Taken dropped(*this);
    const Lock lock(mutex_);
    // The copy constructor of the message may have closed the queue.
    if (IsClosed()) return Pushed::kClosed;
    Add(copy, dropped);
    is_first_drop = dropped.has_message && dropped_in_a_row_ == 1;
  }
  AfterAdd(is_first_drop);
  return Pushed::kYes;
}

void MessageQueue::PushOwned(void* owned) {
  Taken copy(*this);
  copy.stored.copy = owned;
  copy.has_message = true;
  Taken dropped(*this);
  {
    const Lock lock(mutex_);
    if (IsClosed()) return;
    Add(copy, dropped);
  }
  AfterAdd(false);
}

void MessageQueue::MakeRoom() {
  pending_.MakeRoom();
  turns_.MakeRoom();
}

void MessageQueue::Add(Taken& copy, Taken& dropped) {
  MakeRoom();
  CopySlot(pending_.next(), &copy.stored, slot_size_);
  copy.has_message = false;
  AddStored(copy.reply, dropped);
}

void MessageQueue::AddStored(ReplyOwner& reply, Taken& dropped) {
  if (answer_type_ != nullptr) {
    ::new (static_cast<unsigned char*>(pending_.next()) + slot_size_) ReplyOwner(std::move(reply));
  }
  pending_.Push();
  if (pending_.size() > depth_) {
    PopFrom(pending_, dropped);
    ++dropped_;
    ++dropped_in_a_row_;
    return;  // the next message has the turn of the dropped one
  }
  const Turn turn = AddTurn(pending_.size() == 1);
  ::new (turns_.next()) Turn(turn);
  turns_.Push();
}

void MessageQueue::AfterAdd(bool is_first_drop) const {
  if (is_first_drop && depth_ > 1) {
    BRIDGE_LOG(bridge::kLogWarn,
               "a full queue drops its oldest messages, kind: %s, name: %s, module: %s, "
               "depth: %zu",
               kind, name.c_str(), module, depth_);
  }
  AfterPush();
}

void MessageQueue::PopFrom(Fifo& pending, Taken& oldest) const {
  auto* const slot = static_cast<unsigned char*>(pending.front());
  CopySlot(&oldest.stored, slot, slot_size_);
  oldest.has_message = true;
  if (answer_type_ != nullptr) {
    auto* const reply = std::launder(reinterpret_cast<ReplyOwner*>(slot + slot_size_));
    oldest.reply = std::move(*reply);
    reply->~ReplyOwner();
  }
  pending.Pop();
}

Turn MessageQueue::Take() {
  PopFrom(pending_, taken_);
  turns_.Pop();
  if (pending_.size() == 0) {
    caught_up_from_ = std::exchange(dropped_in_a_row_, 0);
    return 0;
  }
  return *static_cast<const Turn*>(turns_.front());
}

void MessageQueue::InvokeTaken() {
  struct AtEnd {
    ~AtEnd() { taken.Reset(); }
    Taken& taken;
  } const at_end{taken_};
  LogDropped(std::exchange(caught_up_from_, 0));
  Invoke([&] { callable_(taken_.message(), taken_.reply.get()); });
}

void MessageQueue::Discard() {
  Fifo discarded(element_size_, 1);
  std::size_t dropped = 0;
  {
    const Lock lock(mutex_);
    dropped = std::exchange(dropped_in_a_row_, 0);
    if (pending_.size() != 0) {
      RemoveTurns(*static_cast<const Turn*>(turns_.front()), pending_.size());
      Fifo turns(sizeof(Turn), 1);
      turns_.Swap(turns);
      pending_.Swap(discarded);
    }
  }
  LogDropped(dropped);
  if (discarded.size() == 0) return;
  BRIDGE_LOG(bridge::kLogInfo,
             "pending messages are discarded, kind: %s, name: %s, module: %s, discarded: %zu", kind,
             name.c_str(), module, discarded.size());
  while (discarded.size() != 0) {
    Taken message(*this);
    PopFrom(discarded, message);
  }
}

void MessageQueue::Close() {
  gate_.Close(name, nullptr);
  Queue::Close();
}

Counts MessageQueue::Count() const {
  const Lock lock(mutex_);
  return {pending_.size(), depth_, dropped_};
}

void MessageQueue::LogDropped(std::size_t count) const {
  if (count == 0 || depth_ == 1) return;
  BRIDGE_LOG(bridge::kLogWarn,
             "a queue has dropped messages, kind: %s, name: %s, module: %s, dropped: %zu", kind,
             name.c_str(), module, count);
}

}  // namespace zorvix::detail
