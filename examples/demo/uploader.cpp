// Uploads samples more slowly than they are published. It drops samples, and no other module does.
#include <chrono>

#include "demo.h"

namespace {

class Uploader {
 public:
  Uploader() {
    demo::Say("uploader", "loaded, slow on purpose, and keeps 2 pending samples: KeepLast{2}");
  }

 private:
  void Upload(const demo::Sample& sample) {
    if (account_.received == 0) demo::Say("uploader", "receives its first sample");
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // stands for a slow network
    account_.Receive(sample);
    uploaded_.Publish(account_);
  }

  demo::Account account_;
  const zorvix::Publisher<demo::Account> uploaded_{demo::kUploaded};
  zorvix::Inbox inbox_{"uploader"};
  zorvix::Subscriber<demo::Sample> samples_{
      demo::kSamples, [this](auto& sample) { Upload(sample); }, inbox_, zorvix::KeepLast{2}};
  zorvix::InboxThread thread_{inbox_};
};

}  // namespace

void ModuleLoad(std::shared_ptr<void>& module) { module = std::make_shared<Uploader>(); }
