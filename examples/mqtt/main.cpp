// Two processes that share a topic through an MQTT broker, such as Mosquitto:
//
//   mqtt_example receive 127.0.0.1 1883    prints each reading that arrives
//   mqtt_example send 127.0.0.1 1883       sends what is typed, such as: kitchen 21.5
//
// Both end at the end of their input.
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "mqtt.h"

using mqtt::Carrier;

namespace {

const zorvix::Topic<mqtt::Reading> kReadings{"readings"};

void Send(const char* host, int port) {
  const Carrier carrier(Carrier::Way::Out, kReadings, host, port);
  const zorvix::Workers worker(1);
  const zorvix::Publisher publisher(kReadings);
  std::string sensor, value;
  while (std::cin >> sensor >> value) {
    publisher.Publish({sensor, std::strtod(value.c_str(), nullptr)});
  }
}

void Receive(const char* host, int port) {
  const zorvix::Subscriber print(kReadings, [](const mqtt::Reading& reading) {
    std::printf("%s %g\n", reading.sensor.c_str(), reading.value);
    std::fflush(stdout);
  });
  const Carrier carrier(Carrier::Way::In, kReadings, host, port);
  while (std::getchar() != EOF) {
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc == 4 ? argv[1] : "";
  if (mode != "send" && mode != "receive") {
    std::fprintf(stderr, "usage: %s send|receive HOST PORT\n", argv[0]);
    return 2;
  }
  (mode == "send" ? Send : Receive)(argv[2], std::atoi(argv[3]));
}
