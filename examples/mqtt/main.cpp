// Two processes that share a topic through an MQTT broker, such as Mosquitto. The messages are
// JSON.
//
//   mqtt_example receive 127.0.0.1 1883    prints each reading that arrives
//   mqtt_example send 127.0.0.1 1883       sends what is typed, such as: kitchen 21.5
//
// Both end at the end of their input.
#include <zorvix/mqtt.h>
#include <zorvix/publisher.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string>

struct Reading {
  std::string sensor;
  double value = 0;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Reading, sensor, value)

namespace {

inline constexpr zorvix::Topic<Reading> kReadings{"readings"};

std::string ToJson(const Reading& reading) { return nlohmann::json(reading).dump(); }

Reading FromJson(const std::string& text) { return nlohmann::json::parse(text).get<Reading>(); }

void Send(zorvix::mqtt::Connection& connection) {
  const zorvix::mqtt::Export readings(connection, kReadings, ToJson, zorvix::KeepLast{1000});
  const zorvix::Publisher publisher(kReadings);
  std::string sensor;
  std::string value;
  while (std::cin >> sensor >> value) {
    publisher.Publish({sensor, std::strtod(value.c_str(), nullptr)});
  }
}

void Receive(zorvix::mqtt::Connection& connection) {
  const zorvix::Subscriber print(kReadings, [](const Reading& reading) {
    std::printf("%s %g\n", reading.sensor.c_str(), reading.value);
    std::fflush(stdout);
  });
  const zorvix::mqtt::Import readings(connection, kReadings, FromJson);
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
  zorvix::mqtt::Options options;
  options.host = argv[2];
  options.port = std::atoi(argv[3]);
  zorvix::mqtt::Connection connection(options);
  if (mode == "send") {
    Send(connection);
  } else {
    Receive(connection);
  }
}
