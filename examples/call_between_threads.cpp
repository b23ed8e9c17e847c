// Calls between threads: asks a slow service without blocking, and gets the answers on the main
// loop.
#include <zorvix/typed.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

// What modules would share. The request is a destination, the answer a distance in kilometres.
inline constexpr zorvix::Service<std::string, int> kDistance{"distance"};

// The slow module. Its server is invoked on a thread of its own.
class Navigator {
 public:
  std::thread::id worked_on() const { return worked_on_; }
  // Returns whether all requests have been answered.
  bool Stop() { return thread_.Stop(std::chrono::seconds(10)); }

 private:
  int FindDistance(const std::string& destination) {
    worked_on_ = std::this_thread::get_id();
    std::this_thread::sleep_for(std::chrono::milliseconds(40));  // stands for a long search
    return static_cast<int>(destination.size()) * 100;
  }

  std::thread::id worked_on_;
  zorvix::Inbox inbox_;
  // At most 10 requests are pending; beyond that, the oldest is dropped.
  zorvix::Server<std::string, int> server_{
      kDistance, [this](const std::string& destination) { return FindDistance(destination); },
      inbox_, zorvix::KeepLast{10}};
  zorvix::InboxThread thread_{inbox_};
};

// The module on the main loop, which drains the inbox.
class View {
 public:
  explicit View(zorvix::Inbox& main_inbox) : client_(kDistance, main_inbox) {}

  // Returns immediately. The callable is invoked in a drain of the main loop's inbox.
  void ShowDistance(const std::string& destination, std::chrono::milliseconds timeout) {
    const auto show = [this, destination](const zorvix::Answer<int>& kilometres) {
      const auto text = kilometres ? std::to_string(*kilometres) + " km" : NameOf(kilometres.why());
      std::printf("%s: %s\n", destination.c_str(), text.c_str());
      answers_.push_back(kilometres.value_or(-1));
      answered_on_ = std::this_thread::get_id();
    };
    client_.Call(destination, timeout, show);
  }

  const std::vector<int>& answers() const { return answers_; }
  std::thread::id answered_on() const { return answered_on_; }

 private:
  std::vector<int> answers_;
  std::thread::id answered_on_;
  zorvix::Client<std::string, int> client_;
};

int main() {
  zorvix::Inbox main_inbox;
  View view(main_inbox);
  constexpr std::chrono::seconds kPatient(10);
  view.ShowDistance("Lima", kPatient);  // there is no server yet
  Navigator navigator;
  view.ShowDistance("Rome", std::chrono::milliseconds(1));  // too short
  view.ShowDistance("Oslo", kPatient);
  view.ShowDistance("Madrid", kPatient);
  const bool returned_immediately = view.answers().empty();

  // A frame takes 16 ms. Callables may use 4 ms of it: the others are invoked in the next frame.
  int frames = 0;
  for (; frames < 1000 && view.answers().size() < 4; ++frames) {
    if (main_inbox.Wait(std::chrono::milliseconds(16))) {
      main_inbox.Drain(std::chrono::milliseconds(4));
    }
  }
  std::printf("the main loop went on for %d frames meanwhile\n", frames);

  const bool all_answered =
      navigator.Stop() && view.answers() == std::vector<int>{-1, -1, 400, 600};
  const bool on_both_threads = view.answered_on() == std::this_thread::get_id() &&
                               navigator.worked_on() != std::this_thread::get_id();
  return returned_immediately && all_answered && on_both_threads ? 0 : 1;
}
