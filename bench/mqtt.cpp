// Measures how many messages a second reach a broker on this machine, with QoS 1, next to
// mosquitto_pub -l. Prints a table.
#include <zorvix/mqtt.h>
#include <zorvix/publisher.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

#include "../tests/broker.h"

namespace {

constexpr int kMessages = 20'000;
constexpr int kRounds = 5;
using Clock = std::chrono::steady_clock;

const std::string kText(100, 'x');

double PerSecond(Clock::time_point start) {
  return kMessages / std::chrono::duration<double>(Clock::now() - start).count();
}

// From the start of the connection until the broker has acknowledged all messages.
double MeasureExport(const Broker& broker) {
  const zorvix::Topic<std::string> topic{"bench"};
  zorvix::mqtt::Options options;
  options.port = broker.port();
  options.close_timeout = std::chrono::minutes(1);
  const auto start = Clock::now();
  {
    zorvix::mqtt::Connection connection(options);
    const zorvix::mqtt::Export out(
        connection, topic, [](const std::string& text) { return text; }, zorvix::KeepAll());
    const zorvix::Publisher publisher(topic);
    for (int count = 0; count < kMessages; ++count) publisher.Publish(kText);
  }
  return PerSecond(start);
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
  for (int round = 0; round < kRounds; ++round) {
    ours = std::max(ours, MeasureExport(broker));
    peer = std::max(peer, MeasureMosquittoPub(broker));
  }
  std::cout << "| to a broker, QoS 1 | messages/s |\n|---|--:|\n| zorvix::mqtt::Export | "
            << std::lround(ours) << " |\n| mosquitto_pub -l -q 1 | " << std::lround(peer) << " |\n";
}
