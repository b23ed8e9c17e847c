// Sums up all samples on a thread of its own. So it needs no mutex, and the sampler does not wait.
#include "demo.h"

namespace {

class Recorder {
 public:
  Recorder() { demo::Say("recorder", "loaded, and waits for samples on a thread of its own"); }

 private:
  void Record(const demo::Sample& sample) {
    account_.Receive(sample);
    sum_ += sample.busy;
    summary_.Set({account_.received, sum_ / account_.received});
    recorded_.Publish(account_);
    if (account_.received == 1) demo::Say("recorder", "receives its first sample");
  }

  demo::Account account_;
  double sum_ = 0;
  zorvix::Holder<demo::Summary> summary_{demo::kSummary};
  const zorvix::Publisher<demo::Account> recorded_{demo::kRecorded};
  // Members are destroyed in reverse order: the thread first, which handles the pending samples.
  zorvix::Inbox inbox_{"recorder"};
  zorvix::Subscriber<demo::Sample> samples_{
      demo::kSamples, [this](auto& sample) { Record(sample); }, inbox_, zorvix::KeepAll{}};
  zorvix::InboxThread thread_{inbox_};  // has the inbox's name
};

}  // namespace

void ModuleLoad(std::shared_ptr<void>& module) { module = std::make_shared<Recorder>(); }
