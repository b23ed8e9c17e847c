// Uploads samples, far more slowly than they come. It loses what it cannot keep; nobody else does.
#include "demo.h"

namespace {

class Uploader {
 public:
  Uploader() { demo::Say("uploader", "loaded: waits for samples, too, and is slow on purpose"); }

 private:
  void Upload(const demo::Sample& sample) {
    if (account_.taken == 0) demo::Say("uploader", "has found the sampler: has its first sample");
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // the network, say
    account_.Take(sample);
    uploaded_.Publish(account_);
  }

  demo::Account account_;
  const zorvix::Publisher<demo::Account> uploaded_{demo::kUploaded};
  zorvix::Inbox inbox_;
  zorvix::Subscriber<demo::Sample> uploading_{
      demo::kSamples, [this](auto& sample) { Upload(sample); }, inbox_, zorvix::KeepLast{2}};
  zorvix::InboxThread thread_{inbox_};
};

}  // namespace

void ModuleLoad(std::shared_ptr<void>& module) { module = std::make_shared<Uploader>(); }
