#include "message_queue.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <new>
#include <utility>

#include "endpoint.h"

namespace zorvix::detail {
namespace {

constexpr std::size_t kSlotsOfBlock = 32;

// Returns 8, 16, 32 or 64.
std::size_t ValueSize(std::size_t size) {
  std::size_t value_size = 8;
  while (value_size < size) value_size *= 2;
  return value_size;
}

// Returns a multiple of the greatest alignment of a value.
std::size_t SlotSize(std::size_t value_size, bool has_reply) {
  constexpr std::size_t kAlignment = alignof(std::max_align_t);
  const std::size_t size = value_size + sizeof(Turn) + (has_reply ? sizeof(ReplyOwner) : 0);
  return (size + kAlignment - 1) / kAlignment * kAlignment;
}

// Copies a value of one of these sizes.
void CopyValue(void* to, const void* from, std::size_t size) {
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

void MessageQueue::Taken::Destroy() {
  if (std::exchange(owns_message, false)) queue_.type_.destroy(stored.copy);
  reply.Fail(why_);
}

MessageQueue::MessageQueue(const char* its_kind, const std::string& its_name, Module& its_module,
                           std::shared_ptr<Strand> strand, const MessageType& type,
                           Callable callable, KeepLast keep, const std::type_info* answer_type)
    : Queue(its_kind, its_name, its_module, std::move(strand)),
      type_(type),
      answer_type_(answer_type),
      is_in_place_(type.size_in_place != 0),
      value_size_(ValueSize(type.size_in_place)),
      slot_size_(SlotSize(value_size_, answer_type != nullptr)),
      depth_(CheckedDepth(keep)),
      callable_(std::move(callable)),
      pending_(slot_size_, std::min(depth_, kSlotsOfBlock)) {
  message_type = type.type;
  response_type = answer_type;
}

inline Turn* MessageQueue::TurnIn(void* slot) const {
  return reinterpret_cast<Turn*>(static_cast<unsigned char*>(slot) + value_size_);
}

inline ReplyOwner* MessageQueue::ReplyIn(void* slot) const {
  return reinterpret_cast<ReplyOwner*>(static_cast<unsigned char*>(slot) + value_size_ +
                                       sizeof(Turn));
}

void MessageQueue::Push(const std::any& message) {
  if (Push(message, nullptr) == Pushed::kOtherType) RejectMessage(message);
}

void MessageQueue::PushRequest(const std::any& request, Offer& offer) {
  Expected expected{offer.Take(), *offer.type.type, offer.client};
  try {
    const Pushed pushed = Push(request, &expected);
    if (pushed == Pushed::kOtherType || pushed == Pushed::kOtherAnswer) {
      RejectRequest(request, expected, pushed);
    }
  } catch (...) {
    expected.reply.Fail(Why::Threw);
    throw;
  }
}

void MessageQueue::RejectMessage(const std::any& message) {
  const Gate::Pass pass(gate_);  // for the type, which is in the module
  if (!pass.admitted()) return;
  rejected.Add();
  throw TypeMismatch("message",
                     {"publisher", message.type(), ModuleOfPublisher(name, message.type())},
                     {"subscriber", *type_.type, module});
}

void MessageQueue::RejectRequest(const std::any& request, Expected& expected, Pushed pushed) {
  const Gate::Pass pass(gate_);
  if (!pass.admitted()) return;
  rejected.Add();
  expected.reply.Fail(Why::WrongType);
  if (pushed == Pushed::kOtherType) {
    throw TypeMismatch("request", {"client", request.type(), expected.client},
                       {"server", *type_.type, module});
  }
  throw TypeMismatch("answer", {"server", *answer_type_, module},
                     {"client", expected.answer_type, expected.client});
}

inline void MessageQueue::PopInto(Taken& oldest, Fifo& pending) const {
  void* const slot = pending.front();
  CopyValue(&oldest.stored, slot, value_size_);
  oldest.owns_message = !is_in_place_;
  if (answer_type_ != nullptr) {
    ReplyOwner* const reply = std::launder(ReplyIn(slot));
    oldest.reply = std::move(*reply);
    std::destroy_at(reply);
  }
  pending.Pop();
}

inline bool MessageQueue::Add(std::optional<Taken>& dropped) {
  ++received_;
  const std::size_t size = pending_.size();
  if (size == depth_) return AddToFull(dropped);
  const Turn turn = AddTurn(size == 0);
  if (size == 0) first_turn_ = turn;
  ::new (TurnIn(pending_.next())) Turn(turn);
  pending_.Push();
  return false;
}

bool MessageQueue::AddToFull(std::optional<Taken>& dropped) {
  ::new (TurnIn(pending_.next())) Turn(TakeTurn());
  pending_.Push();
  PopInto(dropped.emplace(*this, Why::Dropped), pending_);  // the next message takes over its turn
  return drops_.Add() && depth_ != 1;
}

MessageQueue::Pushed MessageQueue::PushInPlace(const std::any& message, Expected* expected) {
  std::optional<Taken> dropped;
  bool is_line_due = false;
  {
    const Lock lock(mutex_);
    if (IsClosed()) return Pushed::kClosed;
    if (!GivesAnswer(expected)) return Pushed::kOtherAnswer;
    pending_.MakeRoom();
    if (!type_.store(message, pending_.next())) return Pushed::kOtherType;
    if (expected != nullptr) {
      ::new (ReplyIn(pending_.next())) ReplyOwner(std::move(expected->reply));
    }
    is_line_due = Add(dropped);
  }
  if (is_line_due) LogDropping();
  AfterPush();
  return Pushed::kYes;
}

MessageQueue::Pushed MessageQueue::PushCopy(const std::any& message, Expected* expected) {
  bool is_line_due = false;
  {
    const Gate::Pass pass(gate_);
    if (!pass.admitted()) return Pushed::kClosed;
    if (!GivesAnswer(expected)) return Pushed::kOtherAnswer;
    Taken copy(*this, Why::Destroyed);
    try {
      copy.owns_message = type_.store(message, &copy.stored);
    } catch (const std::exception& error) {
      ThrowCopy(error);
    } catch (...) {
      KeepLoadedForException();
      throw;
    }
    if (!copy.owns_message) return Pushed::kOtherType;
    if (expected != nullptr) copy.reply = std::move(expected->reply);
    std::optional<Taken> dropped;
    const Lock lock(mutex_);
    // The copy constructor of the message may have closed the queue.
    if (IsClosed()) return Pushed::kClosed;
    is_line_due = AddCopy(copy, dropped);
  }
  if (is_line_due) LogDropping();
  AfterPush();
  return Pushed::kYes;
}

void MessageQueue::PushOwned(void* owned) {
  Taken copy(*this, Why::Destroyed);
  copy.stored.copy = owned;
  copy.owns_message = true;
  std::optional<Taken> dropped;
  {
    const Lock lock(mutex_);
    if (IsClosed()) return;
    AddCopy(copy, dropped);
  }
  AfterPush();
}

bool MessageQueue::AddCopy(Taken& copy, std::optional<Taken>& dropped) {
  pending_.MakeRoom();
  void* const slot = pending_.next();
  std::memcpy(slot, &copy.stored.copy, sizeof copy.stored.copy);
  copy.owns_message = false;
  if (answer_type_ != nullptr) ::new (ReplyIn(slot)) ReplyOwner(std::move(copy.reply));
  return Add(dropped);
}

void MessageQueue::LogDropping() const {
  BRIDGE_LOG(bridge::kLogWarn,
             "a full queue drops its oldest messages, kind: %s, name: %s, module: %s, depth: %zu",
             kind, name.c_str(), module, depth_);
}

Turn MessageQueue::Take() {
  PopInto(taken_, pending_);
  dropped_to_log_ = 0;
  if (pending_.size() == 0) {
    if (depth_ != 1) dropped_to_log_ = drops_.CatchUp();
    return 0;
  }
  first_turn_ = *TurnIn(pending_.front());
  return first_turn_;
}

void MessageQueue::InvokeTaken() {
  struct AtEnd {  // even when it throws
    ~AtEnd() { taken.Reset(); }
    Taken& taken;
  } const at_end{taken_};
  LogDropped(dropped_to_log_);
  RequestReply reply(taken_.reply);
  Invoke([&] { callable_(taken_.message(), &reply); });
}

void MessageQueue::Discard() {
  Fifo discarded(slot_size_, 1);
  std::size_t dropped = 0;
  {
    const Lock lock(mutex_);
    dropped = drops_.End();
    RemoveTurns(first_turn_, pending_.size());
    pending_.Swap(discarded);
  }
  if (depth_ != 1) LogDropped(dropped);
  if (discarded.size() == 0) return;
  BRIDGE_LOG(bridge::kLogInfo,
             "pending messages are discarded, kind: %s, name: %s, module: %s, discarded: %zu", kind,
             name.c_str(), module, discarded.size());
  while (discarded.size() != 0) {
    Taken message(*this, Why::Destroyed);
    PopInto(message, discarded);
  }
}

void MessageQueue::Close() {
  gate_.Close(*this, nullptr);
  Queue::Close();
}

Counts MessageQueue::Count() const {
  const Lock lock(mutex_);
  Counts counts{pending_.size(), depth_, drops_.total()};
  counts.received = received_;
  return counts;
}

}  // namespace zorvix::detail
