#include "export.h"

#include <exception>
#include <stdexcept>

#include "connection.h"
#include "import.h"

namespace zorvix::mqtt {

using detail::Kind;

void Outbox::Open(const StreamPointer& stream) {
  if (stream->kind == Kind::kTopic) return;
  const std::lock_guard lock(mutex_);
  states_.insert(stream);
}

void Outbox::Close(const StreamPointer& stream) {
  const std::lock_guard lock(mutex_);
  states_.erase(stream);
}

void Outbox::Push(const StreamPointer& stream, std::string text) {
  auto shared_text = std::make_shared<const std::string>(std::move(text));
  bool wakes = false;
  {
    const std::lock_guard lock(mutex_);
    if (has_ended_) {
      ++stream->dropped;
      return;
    }
    if (stream->kind == Kind::kState) stream->value = shared_text;
    Append({stream, std::move(shared_text), /*was_sent=*/false});
    wakes = std::exchange(wakes_, false);
  }
  if (wakes) wake_();
}

void Outbox::Append(Outgoing message) {
  auto& stream = *message.stream;
  auto& waiting = stream.waiting;
  const auto added = messages_.insert(messages_.end(), std::move(message));
  ++stream.pending;
  ++pending_;
  waiting.push_back(added);
  if (waiting.size() <= stream.depth) return;
  if (stream.kind == Kind::kTopic) ++stream.dropped;
  messages_.splice(waiting[0], messages_, waiting[1]);
  Erase(messages_, waiting[0]);
  waiting.pop_front();
}

void Outbox::Erase(Messages& messages, Messages::iterator message) {
  --message->stream->pending;
  --pending_;
  messages.erase(message);
}

void Outbox::Forget(const StreamPointer& stream) {
  const std::lock_guard lock(mutex_);
  stream->value.reset();
  for (const auto message : std::exchange(stream->waiting, {})) Erase(messages_, message);
}

zorvix::detail::Counts Outbox::Count(const StreamPointer& stream) {
  const std::lock_guard lock(mutex_);
  return {stream->pending, stream->depth, stream->dropped + stream->rejected.count()};
}

bool Outbox::Take(Messages& taken) {
  const std::lock_guard lock(mutex_);
  while (!messages_.empty()) {
    const auto message = messages_.begin();
    auto& stream = *message->stream;
    auto& waiting = stream.waiting;
    if (!waiting.empty() && waiting.front() == message) waiting.pop_front();
    if (stream.kind == Kind::kTopic || !IsImportedState(stream.name)) {
      taken.splice(taken.end(), messages_, message);
      return true;
    }
    Erase(messages_, message);
  }
  wakes_ = true;
  return false;
}

void Outbox::Finish(Messages& taken, Messages::iterator message) {
  const std::lock_guard lock(mutex_);
  Erase(taken, message);
}

void Outbox::GiveUp(Messages& taken, Messages::iterator message) {
  const std::lock_guard lock(mutex_);
  auto& value = message->stream->value;
  if (value == message->text) value.reset();
  Erase(taken, message);
}

void Outbox::TakeBack(Messages& taken) {
  const std::lock_guard lock(mutex_);
  for (auto& message : taken) message.was_sent = true;
  messages_.splice(messages_.begin(), taken);
}

void Outbox::RepeatStates() {
  const std::lock_guard lock(mutex_);
  for (const auto& stream : states_) {
    if (stream->value && stream->pending == 0) Append({stream, stream->value, /*was_sent=*/true});
  }
}

std::size_t Outbox::pending() {
  const std::lock_guard lock(mutex_);
  return pending_;
}

void Outbox::End() {
  const std::lock_guard lock(mutex_);
  has_ended_ = true;
  states_.clear();
  while (!messages_.empty()) {
    auto& stream = *messages_.front().stream;
    ++stream.dropped;
    stream.waiting.clear();
    Erase(messages_, messages_.begin());
  }
}

namespace detail {

Sender::Sender(Connection& connection, const std::string& name, const std::string& mqtt_topic,
               Kind kind, KeepLast keep, zorvix::detail::Module& module)
    : core_(connection.core_),
      stream_(
          new Stream{name, CheckedTopic(core_->topic_prefix, name, mqtt_topic), kind, keep.depth}),
      listing_("Export", name, module, [this] { return core_->outbox.Count(stream_); }) {
  if (keep.depth == 0) throw std::invalid_argument("MQTT: a depth must not be 0");
  core_->outbox.Open(stream_);
}

Sender::~Sender() { core_->outbox.Close(stream_); }

void Sender::Send(const void* message, const std::function<std::string()>& encode) {
  if (stream_->kind == Kind::kTopic && IsImportedMessage(message)) return;
  if (stream_->kind == Kind::kState && IsImportedState(stream_->name)) {
    core_->outbox.Forget(stream_);
    return;
  }
  try {
    core_->outbox.Push(stream_, encode());
  } catch (const std::exception&) {
    stream_->rejected.Add("it cannot be encoded");
  }
}

}  // namespace detail

}  // namespace zorvix::mqtt
