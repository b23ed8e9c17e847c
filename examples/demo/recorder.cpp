// Sums up all samples, on a thread of its own: so without a mutex, and without the sampler waiting.
#include "demo.h"

namespace {

class Recorder {
 public:
  Recorder() { demo::Say("recorder", "loaded: waits for samples, on a thread of its own"); }

 private:
  void Record(const demo::Sample& sample) {
    account_.Take(sample);
    sum_ += sample.busy;
    summary_.Set({account_.taken, sum_ / account_.taken});
    recorded_.Publish(account_);
    if (account_.taken == 1) demo::Say("recorder", "has found the sampler: has its first sample");
  }

  demo::Account account_;
  double sum_ = 0;
  zorvix::Holder<demo::Summary> summary_{demo::kSummary};
  const zorvix::Publisher<demo::Account> recorded_{demo::kRecorded};
  // Destroyed from the last to the first: what waits has run when the thread has gone.
  zorvix::Inbox inbox_;
  zorvix::Subscriber<demo::Sample> recording_{
      demo::kSamples, [this](auto& sample) { Record(sample); }, inbox_, zorvix::KeepLast{10'000}};
  zorvix::InboxThread thread_{inbox_};
};

}  // namespace

void ModuleLoad(std::shared_ptr<void>& module) { module = std::make_shared<Recorder>(); }
