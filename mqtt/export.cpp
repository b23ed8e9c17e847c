#include "export.h"

#include <stdexcept>

#include "connection.h"
#include "import.h"
#include "link.h"

namespace zorvix::mqtt {

void Outbox::Open(const StreamPointer& stream) {
  if (stream->kind == detail::Kind::kTopic) return;
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
    if (stream->kind == detail::Kind::kState) {
      stream->value = shared_text;
      Drop(*stream);
    }
    Enqueue(stream, std::move(shared_text), /*is_pending=*/true);
    wakes = std::exchange(wakes_, false);
  }
  if (wakes) wake_();
}

void Outbox::Enqueue(const StreamPointer& stream, Text text, bool is_pending) {
  const std::uint64_t turn = ++last_turn_;
  auto& queue = stream->queue;
  if (queue.empty()) ready_.emplace(turn, stream);
  queue.push_back({turn, std::move(text), is_pending});
  if (is_pending) {
    ++stream->pending;
    ++pending_;
  }
  if (queue.size() <= stream->depth) return;
  ++stream->dropped;
  --stream->pending;
  --pending_;
  queue[1].turn = queue[0].turn;
  queue.pop_front();
}

void Outbox::Drop(detail::Stream& stream) {
  if (stream.queue.empty()) return;
  ready_.erase(stream.queue.front().turn);
  for (const auto& queued : stream.queue) {
    if (!queued.is_pending) continue;
    --stream.pending;
    --pending_;
  }
  stream.queue.clear();
}

void Outbox::Forget(const StreamPointer& stream) {
  const std::lock_guard lock(mutex_);
  Drop(*stream);
  stream->value.reset();
}

zorvix::detail::Counts Outbox::Count(const detail::Stream& stream) {
  const std::lock_guard lock(mutex_);
  return {stream.pending, stream.depth, stream.dropped + stream.rejected.count()};
}

std::optional<Outgoing> Outbox::Take() {
  const std::lock_guard lock(mutex_);
  while (!ready_.empty()) {
    const auto stream = ready_.begin()->second;
    if (stream->kind == detail::Kind::kState && IsImportedState(stream->name)) {
      Drop(*stream);
      continue;
    }
    auto node = ready_.extract(ready_.begin());
    auto& [turn, text, is_pending] = stream->queue.front();
    Outgoing message{stream, std::move(text), is_pending, /*was_sent=*/!is_pending};
    stream->queue.pop_front();
    ++stream->unfinished;
    if (!stream->queue.empty()) {
      node.key() = stream->queue.front().turn;
      ready_.insert(std::move(node));
    }
    return message;
  }
  wakes_ = true;
  return std::nullopt;
}

void Outbox::Finish(const Outgoing& message) {
  const std::lock_guard lock(mutex_);
  --message.stream->unfinished;
  if (!message.is_pending) return;
  --message.stream->pending;
  --pending_;
}

void Outbox::RepeatStates() {
  const std::lock_guard lock(mutex_);
  for (const auto& stream : states_) {
    const bool has_more = !stream->queue.empty() || stream->unfinished != 0;
    if (stream->value && !has_more) Enqueue(stream, stream->value, /*is_pending=*/false);
  }
}

std::size_t Outbox::pending() {
  const std::lock_guard lock(mutex_);
  return pending_;
}

void Outbox::End() {
  const std::lock_guard lock(mutex_);
  has_ended_ = true;
  while (!ready_.empty()) {
    const auto stream = ready_.begin()->second;  // shared, since the map may have the last one
    stream->dropped += stream->queue.size();
    Drop(*stream);
  }
  states_.clear();
}

namespace detail {

Sender::Sender(Connection& connection, const std::string& name, const std::string& mqtt_topic,
               Kind kind, KeepLast keep)
    : core_(connection.core_),
      stream_(
          std::make_shared<Stream>(name, core_->CheckedTopic(name, mqtt_topic), kind, keep.depth)) {
  if (keep.depth == 0) throw std::invalid_argument("MQTT: a depth must not be 0");
  core_->outbox.Open(stream_);
}

Sender::~Sender() { core_->outbox.Close(stream_); }

bool Sender::IsImported(const void* message) const {
  if (stream_->kind == Kind::kTopic) return IsImportedMessage(message);
  const bool is_imported = IsImportedState(stream_->name);
  if (is_imported) core_->outbox.Forget(stream_);
  return is_imported;
}

void Sender::Push(std::string text) { core_->outbox.Push(stream_, std::move(text)); }

void Sender::Reject() { stream_->rejected.Add("it cannot be encoded"); }

zorvix::detail::Counts Sender::Count() const { return core_->outbox.Count(*stream_); }

}  // namespace detail

}  // namespace zorvix::mqtt
