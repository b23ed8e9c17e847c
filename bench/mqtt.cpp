// Measures how many messages a second reach a broker on this machine, with QoS 1, next to
// mosquitto_pub -l, and how long one Publish takes meanwhile. Prints tables.
#include <zorvix/mqtt.h>
#include <zorvix/publisher.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "../tests/broker.h"

namespace {

constexpr int kMessages = 20'000;
constexpr int kRounds = 9;
using Clock = std::chrono::steady_clock;

const std::string kText(100, 'x');

double PerSecond(Clock::time_point start) {
  return kMessages / std::chrono::duration<double>(Clock::now() - start).count();
}

struct Result {
  double per_second;  // until the broker has acknowledged all messages
  double publish;     // nanoseconds
};

// Begins with the start of the connection.
Result MeasureExport(const Broker& broker) {
  const zorvix::Topic<std::string> topic{"bench"};
  zorvix::mqtt::Options options;
  options.port = broker.port();
  options.close_timeout = std::chrono::minutes(1);
  const auto start = Clock::now();
  std::chrono::duration<double, std::nano> publishing{};
  {
    zorvix::mqtt::Connection connection(options);
    const zorvix::mqtt::Export out(
        connection, topic, [](const std::string& text) { return text; }, zorvix::KeepAll());
    const zorvix::Publisher publisher(topic);
    const auto published = Clock::now();
    for (int count = 0; count < kMessages; ++count) publisher.Publish(kText);
    publishing = Clock::now() - published;
  }
  return {PerSecond(start), publishing.count() / kMessages};
}

double MeasureMosquittoPub(const Broker& broker) {
  const std::string lines = broker.folder() + "/lines";
  std::ofstream file(lines);
  for (int count = 0; count < kMessages; ++count) file << kText << "\n";
  file.close();
  const auto start = Clock::now();
  const std::string command = "mosquitto_pub -h localhost -p " + std::to_string(broker.port()) +
                              " -t bench -q 1 -l < " + lines;
  if (std::system(command.c_str()) != 0) std::abort();
  return PerSecond(start);
}

}  // namespace

int main() {
  Broker broker;
  broker.Start();
  double ours = 0;
  double peer = 0;
  double publish = 0;
  std::vector<double> ratios;
  for (int round = 0; round < kRounds; ++round) {
    const auto result = MeasureExport(broker);
    const double other = MeasureMosquittoPub(broker);
    ours = std::max(ours, result.per_second);
    peer = std::max(peer, other);
    publish = round == 0 ? result.publish : std::min(publish, result.publish);
    ratios.push_back(result.per_second / other);
  }
  std::sort(ratios.begin(), ratios.end());
  std::cout << "| to a broker, QoS 1 | messages/s |\n|---|--:|\n| zorvix::mqtt::Export | "
            << std::lround(ours) << " |\n| mosquitto_pub -l -q 1 | " << std::lround(peer)
            << " |\n| ratio, median | " << std::round(ratios[kRounds / 2] * 100) / 100
            << " |\n\n| one Publish to an export, ns | " << std::lround(publish)
            << " |\n|---|--:|\n";
}
