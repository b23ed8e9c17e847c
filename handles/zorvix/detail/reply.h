// How the answer of a call gets from a server to its client. Not for users.
#ifndef ZORVIX_DETAIL_REPLY_H_
#define ZORVIX_DETAIL_REPLY_H_

#include <zorvix/detail/checks.h>
#include <zorvix/zorvix.h>

#include <any>
#include <memory>
#include <optional>
#include <utility>

namespace zorvix {

enum class Why;
template <typename Response>
class Answer;
template <typename Response>
class Reply;

namespace detail ZORVIX_EXPORT {

// Where an answer is written: the parts of an Answer<Response>, or the response of a client without
// a handle.
struct AnswerSlot {
  void* optional = nullptr;
  Why* why = nullptr;
  std::any* any = nullptr;
};

// How a call ends: with an answer, which `write` moves into the slot, or if that is null, without
// one.
struct Outcome {
  void (*write)(const AnswerSlot&, void* answer);
  void* answer;
  Why why;
};

// Takes the outcome of one call.
class ReplyTarget {
 public:
  // Writes under no lock, and not at all if nobody waits for the answer any more. Only the first
  // outcome counts.
  virtual void Settle(const Outcome& outcome) = 0;

 protected:
  ~ReplyTarget() = default;
};

// What a server's callable gets. Exists as long as the callable is invoked.
class CurrentReply : public ReplyTarget {
 public:
  // Returns what settles the call from then on: without an answer when it is destroyed. To be
  // called once, and not after Settle.
  virtual std::shared_ptr<ReplyTarget> Keep() = 0;

 protected:
  ~CurrentReply() = default;
};

}  // namespace detail

namespace detail ZORVIX_HIDDEN {

template <typename Response>
AnswerSlot SlotOf(Answer<Response>& answer) {
  return {static_cast<std::optional<Response>*>(&answer), &answer.why_, nullptr};
}

template <typename Response>
Reply<Response> MakeReply(std::shared_ptr<ReplyTarget> target) {
  return Reply<Response>(std::move(target));
}

template <typename Response>
void WriteAnswer(const AnswerSlot& slot, void* answer) {
  auto& response = *static_cast<Response*>(answer);
  if (slot.optional != nullptr) {
    static_cast<std::optional<Response>*>(slot.optional)->emplace(std::move(response));
  } else {
    slot.any->emplace<Response>(std::move(response));
  }
}

template <typename Response>
Outcome AnsweredWith(Response& response) {
  return {WriteAnswer<Response>, &response, {}};
}
inline Outcome NoAnswer(Why why) { return {nullptr, nullptr, why}; }

}  // namespace detail
}  // namespace zorvix

#endif  // ZORVIX_DETAIL_REPLY_H_
