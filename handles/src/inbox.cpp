#include "inbox.h"

#include <cstddef>
#include <cstdlib>
#include <typeinfo>
#include <utility>

#include "dispatcher.h"
#include "sync.h"
#include "threads.h"

namespace zorvix::detail {
namespace {

using Task = Function<>;

// Tasks are stored on the heap, and never found in a std::any.
constexpr MessageType kTaskType = {&typeid(Task), nullptr, 0, nullptr, Destroy<Task>};

// Others cannot invoke it at the same time.
struct InvokeTask {
  void operator()(const void* task, CurrentReply*) const {
    (*const_cast<Task*>(static_cast<const Task*>(task)))();
  }
  static constexpr bool kHasAnswer = false;
};

}  // namespace

InboxState::InboxState(const std::string& name, Module& its_module)
    : module(its_module),
      strand(std::make_shared<Strand>(name, name, module)),
      tasks(std::make_shared<MessageQueue>("Inbox", name, module, strand, kTaskType,
                                           Callable(std::in_place_type<InvokeTask>), KeepAll())) {}

InboxState& StateOf(const Inbox& inbox) { return *inbox.state_; }

std::shared_ptr<Strand> StrandAt(const Place& place, const Endpoint& endpoint) {
  if (place.inbox != nullptr) return StateOf(*place.inbox).strand;
  if (place.delivery == Delivery::Queued && endpoint.type == bridge::BridgeType::Sync) {
    return MakeQueuedStrand(endpoint);
  }
  return nullptr;
}

// The thread of an InboxThread.
class DrainThread {
 public:
  // The thread gets this name, or that of the inbox if it is empty.
  DrainThread(const InboxState& inbox, const std::string& name)
      : strand_(inbox.strand),
        thread_(&DrainThread::Run, this, name.empty() ? inbox.tasks->name : name) {}

  bool Stop(Timeout timeout) {
    if (!thread_.joinable()) return processed_all_;
    if (thread_.get_id() == this_thread::get_id()) {
      BRIDGE_LOG(bridge::kLogError, "an InboxThread is stopped by a callable it invokes");
      std::abort();
    }
    end_ = Deadline(timeout);
    strand_->Stop(stop_);
    thread_.join();
    return processed_all_;
  }

 private:
  void Run(const std::string& name) {
    NameThread(name);
    const auto may_go_on = [this] { return !stop_ || Clock::now() < end_; };
    while (!stop_) {
      strand_->Wait(kNever, stop_);
      strand_->Drain(may_go_on);
    }
    strand_->Drain(may_go_on);  // what arrived during the last drain
    processed_all_ = !strand_->ready();
  }

  const std::shared_ptr<Strand> strand_;
  Atomic<bool> stop_{false};
  Clock::time_point end_;  // written before stop_
  bool processed_all_ = false;
  Thread thread_;
};

}  // namespace zorvix::detail

namespace zorvix {

Inbox::Inbox(const std::string& name, detail::Module& module)
    : state_(std::make_shared<detail::InboxState>(name, module)) {}

Inbox::~Inbox() { state_->strand->Shut(state_); }

std::size_t Inbox::Drain() { return state_->strand->Drain(); }

std::size_t Inbox::Drain(Timeout timeout) {
  const auto end = detail::Deadline(timeout);
  return state_->strand->Drain([end, is_first = true]() mutable {
    return std::exchange(is_first, false) || detail::Clock::now() < end;
  });
}

void Inbox::Wait() const { Wait(Timeout::Forever()); }

bool Inbox::Wait(Timeout timeout) const {
  return state_->strand->Wait(detail::Deadline(timeout), false);
}

int Inbox::fd() const { return state_->strand->fd(); }

void Inbox::Post(detail::Function<>&& task, detail::Module& module) {
  if (&module != &state_->module) {
    detail::KeepLoaded(module, "it has posted a task to an inbox of another module",
                       state_->tasks->name);
  }
  state_->tasks->PushOwned(new detail::Task(std::move(task)));
}

InboxThread::InboxThread(Inbox& inbox, const std::string& name)
    : thread_(std::make_unique<detail::DrainThread>(detail::StateOf(inbox), name)) {}

InboxThread::~InboxThread() { Stop(); }

void InboxThread::Stop() { Stop(Timeout::Forever()); }

bool InboxThread::Stop(Timeout timeout) { return thread_->Stop(timeout); }

}  // namespace zorvix
