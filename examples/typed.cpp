// Topics and services with typed handles, which unregister in their destructors.
#include <zorvix/typed.h>

#include <cstdio>

// What modules would share: names and types.
struct Sample {
  int number;
  double value;
};
const zorvix::Topic<Sample> kSamples{"samples"};
const zorvix::Service<int, double, bridge::BridgeType::Async> kSquare{"square"};

int main() {
  std::atomic<int> shown{0};
  const auto show = [&shown](const char* where) {
    return [&shown, where](const Sample& sample) {
      std::printf("%s: sample %d is %.1f\n", where, sample.number, sample.value);
      ++shown;
    };
  };
  std::optional<double> square;
  {
    const zorvix::Subscriber direct(kSamples, show("directly"));
    const zorvix::Subscriber queued(kSamples, show("on a worker"), zorvix::Delivery::Queued);
    const zorvix::Server squares(kSquare, [](int side) { return 1.0 * side * side; });
    const zorvix::Workers workers(1);  // destroyed first, when the queue is empty

    const zorvix::Publisher samples(kSamples);
    samples.Publish({1, 0.5});
    samples.Publish({2, 1.5});

    const zorvix::Client client(kSquare);
    square = client.Call(7).get();
  }
  std::printf("the square of 7, from a worker: %.0f\n", square.value_or(0));
  return shown == 4 && square == 49 ? 0 : 1;
}
