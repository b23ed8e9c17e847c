// What the sending and the receiving process agree on.
#ifndef ZORVIX_EXAMPLES_MQTT_READING_H_
#define ZORVIX_EXAMPLES_MQTT_READING_H_

#include <nlohmann/json.hpp>
#include <string>

namespace mqtt {

struct Reading {
  std::string sensor;
  double value = 0;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Reading, sensor, value)

}  // namespace mqtt

#endif  // ZORVIX_EXAMPLES_MQTT_READING_H_
