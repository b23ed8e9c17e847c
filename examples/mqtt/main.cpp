// Two processes that share a topic through an MQTT broker, such as Mosquitto:
//
//   mqtt_example receive 127.0.0.1 1883    prints each reading that arrives
//   mqtt_example send 127.0.0.1 1883       sends the time since its start, five times a second
//
// Both end at Enter or at the end of their input.
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "mqtt.h"

using mqtt::Carrier;

namespace {

const zorvix::Topic<mqtt::Reading> kReadings{"readings"};

// Returns whether there was input within the time; a negative time has no end.
bool Input(int milliseconds) {
  pollfd input{STDIN_FILENO, POLLIN, 0};
  return poll(&input, 1, milliseconds) != 0;
}

void Send(const char* host, int port) {
  const Carrier carrier(Carrier::Way::Out, kReadings, host, port);
  const zorvix::Workers worker(1);
  const zorvix::Publisher publisher(kReadings);
  const auto start = std::chrono::steady_clock::now();
  while (!Input(200)) {
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
    publisher.Publish({"time", time.count()});
  }
}

void Receive(const char* host, int port) {
  const zorvix::Subscriber print(kReadings, [](const mqtt::Reading& reading) {
    std::printf("%s %g\n", reading.sensor.c_str(), reading.value);
    std::fflush(stdout);
  });
  const Carrier carrier(Carrier::Way::In, kReadings, host, port);
  Input(-1);
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
