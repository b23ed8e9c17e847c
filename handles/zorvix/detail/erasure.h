// How handles pass users' types to the library, which knows none. Not for users.
//
// What is here is compiled into each module, as hidden code. The library calls it only while the
// handle exists that has brought it: the handle's destructor waits.
#ifndef ZORVIX_DETAIL_ERASURE_H_
#define ZORVIX_DETAIL_ERASURE_H_

#include <zorvix/answer.h>
#include <zorvix/detail/checks.h>
#include <zorvix/detail/reply.h>
#include <zorvix/zorvix.h>

#include <any>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>

// Names the interface between these headers and the library. A module that was compiled with the
// headers of another minor version needs another symbol, so the loader refuses to load it.
extern "C" ZORVIX_EXPORT const int zorvix_handles_5_1;

namespace zorvix {

namespace detail ZORVIX_EXPORT {

// A module that has handles.
struct Module {
  const int* interface = &zorvix_handles_5_1;
  // Written by the library:
  std::atomic<std::uint32_t> load_number{0};  // another one each time that it is loaded
  std::atomic<const char*> name{nullptr};     // its file name, such as "libhud.so"
  std::atomic<bool> stays_loaded{false};      // even after dlclose
};

}  // namespace detail

namespace detail ZORVIX_HIDDEN {

// The module that this is compiled into.
inline Module this_module;

// A callable of a module, which the library destroys when the handle is destroyed. A small one is
// stored in place.
template <typename... Arguments>
class Function {
 public:
  Function() = default;
  template <typename Object, typename... Initializers>
  explicit Function(std::in_place_type_t<Object>, Initializers&&... initializers)
      : operations_(&kOperations<Object>) {
    if constexpr (kIsSmall<Object>) {
      ::new (static_cast<void*>(buffer_)) Object{std::forward<Initializers>(initializers)...};
    } else {
      ::new (static_cast<void*>(buffer_))
          Object*(new Object{std::forward<Initializers>(initializers)...});
    }
  }
  Function(Function&& other) noexcept : operations_(std::exchange(other.operations_, nullptr)) {
    if (operations_ != nullptr) operations_->move(buffer_, other.buffer_);
  }
  Function& operator=(Function&& other) noexcept {
    Reset();
    operations_ = std::exchange(other.operations_, nullptr);
    if (operations_ != nullptr) operations_->move(buffer_, other.buffer_);
    return *this;
  }
  ~Function() { Reset(); }

  explicit operator bool() const { return operations_ != nullptr; }
  void operator()(Arguments... arguments) { operations_->invoke(buffer_, arguments...); }
  void Reset() {
    if (operations_ != nullptr) std::exchange(operations_, nullptr)->destroy(buffer_);
  }
  // Where an Awaiting keeps the answer of its call.
  AnswerSlot answer() { return operations_->answer(buffer_); }

 private:
  struct Operations {
    void (*invoke)(void* buffer, Arguments...);
    void (*move)(void* to, void* from);  // destroys the one that it moves from
    void (*destroy)(void* buffer);
    AnswerSlot (*answer)(void* buffer);
  };
  static constexpr std::size_t kBufferSize = 6 * sizeof(void*);

  template <typename Object>
  static constexpr bool kIsSmall =
      (sizeof(Object) <= kBufferSize) && std::is_nothrow_move_constructible_v<Object> &&
      alignof(Object) <= alignof(std::max_align_t);
  template <typename Object>
  static Object& In(void* buffer) {
    if constexpr (kIsSmall<Object>) {
      return *static_cast<Object*>(buffer);
    } else {
      return **static_cast<Object**>(buffer);
    }
  }
  template <typename Object>
  static void Invoke(void* buffer, Arguments... arguments) {
    In<Object>(buffer)(arguments...);
  }
  template <typename Object>
  static void Move(void* to, void* from) {
    if constexpr (kIsSmall<Object>) {
      ::new (to) Object(std::move(In<Object>(from)));
      In<Object>(from).~Object();
    } else {
      ::new (to) Object*(&In<Object>(from));
    }
  }
  template <typename Object>
  static void Destroy(void* buffer) {
    if constexpr (kIsSmall<Object>) {
      In<Object>(buffer).~Object();
    } else {
      delete &In<Object>(buffer);
    }
  }
  template <typename Object>
  static AnswerSlot AnswerIn(void* buffer) {
    if constexpr (Object::kHasAnswer) {
      return SlotOf(In<Object>(buffer).answer);
    } else {
      return {};
    }
  }
  template <typename Object>
  static constexpr Operations kOperations = {Invoke<Object>, Move<Object>, Destroy<Object>,
                                             AnswerIn<Object>};

  const Operations* operations_ = nullptr;
  alignas(std::max_align_t) unsigned char buffer_[kBufferSize];
};

// Takes a message, or a request and the reply to it, or a value of a state.
using Callable = Function<const void*, CurrentReply*>;

// What a library that does not know a type of messages or requests can do with them.
struct MessageType {
  const std::type_info* type;
  const void* (*find)(const std::any&);  // the value, or null if it is of another type
  // A queue stores the value itself, or if this is 0, the address of a copy on the heap.
  std::size_t size_in_place;
  bool (*store)(const std::any&, void* stored);  // false if it is of another type
  void (*destroy)(const void* copy);             // one on the heap
};

// A small message without code of its own is stored in place.
template <typename Message>
constexpr bool kIsStoredInPlace = std::is_trivially_copyable_v<Message> && sizeof(Message) <= 64 &&
                                  alignof(Message) <= alignof(std::max_align_t);

template <typename Message>
const void* Find(const std::any& any) {
  return std::any_cast<Message>(&any);
}
template <typename Message>
bool Store(const std::any& any, void* stored) {
  const auto* const message = std::any_cast<Message>(&any);
  if (message == nullptr) return false;
  if constexpr (kIsStoredInPlace<Message>) {
    ::new (stored) Message(*message);
  } else {
    *static_cast<void**>(stored) = new Message(*message);
  }
  return true;
}
template <typename Value>
void Destroy(const void* value) {
  delete static_cast<const Value*>(value);
}

template <typename Message>
constexpr MessageType DescribeMessage() {
  if constexpr (kIsStoredInPlace<Message>) {
    return {&typeid(Message), Find<Message>, sizeof(Message), Store<Message>, nullptr};
  } else {
    return {&typeid(Message), Find<Message>, 0, Store<Message>, Destroy<Message>};
  }
}
template <typename Message>
inline constexpr MessageType kMessageType = DescribeMessage<Message>();

// Destroys the value of a state. Null if freeing its memory is enough, which needs no code of the
// module.
template <typename Value>
void DestroyValue(const void* value) {
  ::delete static_cast<const Value*>(value);
}
template <typename Value>
inline constexpr auto kDestroyValue = std::is_trivially_destructible_v<Value> &&
                                              alignof(Value) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__
                                          ? nullptr
                                          : &DestroyValue<Value>;

// How a client takes the answer out of the response of a server without a handle.
struct AnswerType {
  const std::type_info* type;
  void (*take)(const AnswerSlot&, void* response);  // from a std::any that has this type
};

template <typename Response>
void TakeAnswer(const AnswerSlot& slot, void* response) {
  WriteAnswer<Response>(slot, std::any_cast<Response>(static_cast<std::any*>(response)));
}
template <typename Response>
inline constexpr AnswerType kAnswerType = {&typeid(Response), TakeAnswer<Response>};

// The callable of a subscriber or watcher.
template <typename Message, typename User>
struct Receiving {
  void operator()(const void* message, CurrentReply*) {
    static_cast<void>(std::invoke(callable, *static_cast<const Message*>(message)));
  }
  static constexpr bool kHasAnswer = false;
  User callable;
};

template <typename Message, typename User>
Callable Receive(User callable) {
  CheckCallable<User, const Message&>();
  return Callable(std::in_place_type<Receiving<Message, User>>, std::move(callable));
}

// The callable of a server that returns a response.
template <typename Request, typename Response, typename User>
struct Answering {
  void operator()(const void* request, CurrentReply* reply) {
    Response response = std::invoke(callable, *static_cast<const Request*>(request));
    reply->Settle(AnsweredWith(response));
  }
  static constexpr bool kHasAnswer = false;
  User callable;
};

// The callable of a server that takes a zorvix::Reply.
template <typename Request, typename Response, typename User>
struct AnsweringLater {
  void operator()(const void* request, CurrentReply* reply) {
    const std::shared_ptr<ReplyTarget> kept = reply->Keep();
    try {
      static_cast<void>(
          std::invoke(callable, *static_cast<const Request*>(request), MakeReply<Response>(kept)));
    } catch (...) {
      kept->Settle(NoAnswer(Why::Threw));
      throw;
    }
  }
  static constexpr bool kHasAnswer = false;
  User callable;
};

template <typename Request, typename Response, typename User>
Callable AnswerWith(User callable) {
  if constexpr (kAnswersLater<User, Request, zorvix::Reply<Response>>) {
    return Callable(std::in_place_type<AnsweringLater<Request, Response, User>>,
                    std::move(callable));
  } else {
    CheckServer<User, Request, Response>();
    return Callable(std::in_place_type<Answering<Request, Response, User>>, std::move(callable));
  }
}

// What all handles tell the library.
struct Endpoint {
  const std::string& name;
  bridge::BridgeType type = bridge::BridgeType::Sync;
  Module& module = this_module;
};

}  // namespace detail
}  // namespace zorvix

#endif  // ZORVIX_DETAIL_ERASURE_H_
