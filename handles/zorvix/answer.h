// The answer of a call, and the reply with which a server answers later.
//
//   #include <zorvix/client.h>
//   #include <zorvix/server.h>
//
//   inline constexpr zorvix::Service<int, int> kHalf{"half"};
//
//   int main() {
//     const zorvix::Server half(kHalf, [](int number, zorvix::Reply<int> reply) {
//       if (number % 2 != 0) return reply.Refuse();
//       reply(number / 2);
//     });
//     const zorvix::Client client(kHalf);
//     const zorvix::Answer<int> answer = client.Call(7);
//     return !answer && answer.why() == zorvix::Why::Refused ? 0 : 1;
//   }
//
// Answer: why, and the members of std::optional. NameOf. Reply: operator(), Refuse.
#ifndef ZORVIX_ANSWER_H_
#define ZORVIX_ANSWER_H_

#include <zorvix/detail/reply.h>

#include <memory>
#include <optional>
#include <utility>

namespace zorvix {

// Why a call has no answer.
enum class Why {
  Answered,       // it has one
  NoServer,       // there is no server
  Dropped,        // a full queue has dropped the request, or the client has too many calls
  Destroyed,      // the server, its inbox or all copies of the Reply were destroyed before
  Threw,          // the server threw, or the request or the answer could not be copied or moved
  WrongType,      // the server has a request or response of another type
  TimedOut,       // there was no answer within the timeout of the call
  WouldDeadlock,  // the server could only answer after the calling callable has returned
  Refused,        // the server has called Reply::Refuse
  Unknown,        // a server without a handle left no response, or the client is moved-from
};

// Returns the name of the enumerator, such as "NoServer".
constexpr const char* NameOf(Why why) {
  constexpr const char* kNames[] = {"Answered", "NoServer",  "Dropped",  "Destroyed",
                                    "Threw",    "WrongType", "TimedOut", "WouldDeadlock",
                                    "Refused",  "Unknown"};
  return kNames[static_cast<int>(why)];
}

// A std::optional<Response> that knows why it is empty.
//
// Where a Response can be constructed from an Answer, as bool can, write
// `std::optional<bool> on = client.Call(1);`: with parentheses or braces in place of `=`, the
// std::optional would get whether there is an answer. A Response that converts from any type, such
// as std::any, cannot be copied into a std::optional either way: use the Answer itself.
template <typename Response>
class Answer : public std::optional<Response> {
 public:
  Answer() = default;
  Answer(std::nullopt_t, Why why) : why_(why) {}

  // Returns Why::Answered if there is an answer.
  Why why() const { return this->has_value() ? Why::Answered : why_; }

 private:
  friend detail::AnswerSlot detail::SlotOf<Response>(Answer& answer);
  Why why_ = Why::Unknown;
};

// Answers are compared as std::optionals. Those of the standard library do not take what derives
// from a std::optional as one.
template <typename A, typename B>
bool operator==(const Answer<A>& a, const Answer<B>& b) {
  return static_cast<const std::optional<A>&>(a) == static_cast<const std::optional<B>&>(b);
}
template <typename A, typename B>
bool operator==(const Answer<A>& a, const std::optional<B>& b) {
  return static_cast<const std::optional<A>&>(a) == b;
}
template <typename A, typename B>
bool operator==(const std::optional<A>& a, const Answer<B>& b) {
  return b == a;
}
template <typename A, typename B>
bool operator!=(const Answer<A>& a, const Answer<B>& b) {
  return !(a == b);
}
template <typename A, typename B>
bool operator!=(const Answer<A>& a, const std::optional<B>& b) {
  return !(a == b);
}
template <typename A, typename B>
bool operator!=(const std::optional<A>& a, const Answer<B>& b) {
  return !(b == a);
}

// Answers one call, now or later, from any thread (similar to a std::promise). A server's callable
// gets it. Copies answer the same call. The first that is used answers it: later uses do nothing.
// If the last copy is destroyed and none has been used, the caller gets Why::Destroyed. It may be
// used after the server and the client have been destroyed. Any thread may use copies at the same
// time. A moved-from Reply does nothing.
template <typename Response>
class Reply {
 public:
  // Answers the call. Does not block. Throws what the move constructor of the response throws; the
  // caller gets Why::Threw then.
  void operator()(Response response) const {
    if (target_ != nullptr) target_->Settle(detail::AnsweredWith(response));
  }

  // Answers the call with Why::Refused. Does not block.
  void Refuse() const {
    if (target_ != nullptr) target_->Settle(detail::NoAnswer(Why::Refused));
  }

 private:
  friend Reply detail::MakeReply<Response>(std::shared_ptr<detail::ReplyTarget> target);
  explicit Reply(std::shared_ptr<detail::ReplyTarget> target) : target_(std::move(target)) {}

  std::shared_ptr<detail::ReplyTarget> target_;
};

}  // namespace zorvix

#endif  // ZORVIX_ANSWER_H_
