// Handles for topics and services: direct, and queued, which workers invoke. Handles unregister in
// their destructors.
#include <zorvix/typed.h>

#include <atomic>
#include <cstdio>
#include <optional>

// What modules would share: names and types.
struct Sample {
  int number;
  double value;
};
inline constexpr zorvix::Topic<Sample> kSamples{"samples"};
inline constexpr zorvix::Service<int, double> kSquare{"square"};

int main() {
  std::atomic<int> shown{0};
  const auto show = [&shown](const char* where) {
    return [&shown, where](const Sample& sample) {
      std::printf("%s: sample %d is %.1f\n", where, sample.number, sample.value);
      ++shown;
    };
  };
  const auto compute = [](int side) { return 1.0 * side * side; };
  std::optional<double> of_seven;
  std::optional<double> of_eight;
  {
    const zorvix::Subscriber direct(kSamples, show("directly"));
    const zorvix::Subscriber queued(kSamples, show("on a worker"), zorvix::Delivery::Queued);
    const zorvix::Server squares(kSquare, compute, zorvix::Delivery::Queued);
    const zorvix::Client client(kSquare, zorvix::Delivery::Queued);
    const zorvix::Workers workers(1);  // destroyed first, when nothing is pending any more

    const zorvix::Publisher samples(kSamples);
    samples.Publish({1, 0.5});
    samples.Publish({2, 1.5});

    of_seven = client.Call(7);  // blocks until a worker has answered
    client.Call(8, [&](std::optional<double> answer) { of_eight = answer; });  // on a worker
  }
  std::printf("the squares of 7 and 8: %.0f, %.0f\n", of_seven.value_or(0), of_eight.value_or(0));
  return shown == 4 && of_seven == 49 && of_eight == 64 ? 0 : 1;
}
