#include "mqtt.h"

namespace mqtt {

Carrier::Carrier(Way way, const zorvix::Topic<Reading>& topic, const std::string& host, int port)
    : topic_(topic.name), address_(host + ":" + std::to_string(port)), client_(nullptr, nullptr) {
  static const int library = mosquitto_lib_init();
  client_ = {mosquitto_new(nullptr, true, this), mosquitto_destroy};
  auto* const client = client_.get();
  const bool fine = library == 0 && client && mosquitto_pub_topic_check(topic_.c_str()) == 0;
  if (!fine) throw std::invalid_argument("MQTT does not allow the topic " + topic_);
  mosquitto_connect_callback_set(client, [](auto*, void* self, int error) {
    if (error == 0) static_cast<Carrier*>(self)->Here();  // a refusal ends in a disconnection
  });
  mosquitto_disconnect_callback_set(client, [](auto*, void* self, int error) {
    static_cast<Carrier*>(self)->Away(error);  // 0 when it was asked for
  });
  mosquitto_message_callback_set(client, [](auto*, void* self, auto* got) {
    static_cast<Carrier*>(self)->Receive(static_cast<const char*>(got->payload), got->payloadlen);
  });
  const auto send = [this, client](const Reading& reading) {
    const auto text = nlohmann::json(reading).dump();
    const bool sent =
        broker_ == Broker::Here && mosquitto_publish(client, nullptr, topic_.c_str(),
                                                     int(text.size()), text.data(), 0, false) == 0;
    if (!sent) ++lost_;
  };
  if (way == Way::In) in_.emplace(topic);
  if (way == Way::Out) out_.emplace(topic, send, zorvix::Delivery::Queued);  // no publisher waits
  mosquitto_reconnect_delay_set(client, 1, 10, false);  // after seconds: 1, 2, 3 and so on to 10
  mosquitto_loop_start(client);  // first, or it gives up when the first attempt fails
  Away(mosquitto_connect_async(client, host.c_str(), port, /*keepalive=*/30));
}

Carrier::~Carrier() {
  closing_ = true;
  mosquitto_disconnect(client_.get());
  mosquitto_loop_stop(client_.get(), false);
}

void Carrier::Here() {
  if (closing_) mosquitto_disconnect(client_.get());  // what the destructor did came too early
  if (in_) mosquitto_subscribe(client_.get(), nullptr, topic_.c_str(), 0);
  BRIDGE_LOG(bridge::kLogInfo, "MQTT broker %s is here, %u messages did not go out",
             address_.c_str(), lost_.exchange(0));
  broker_ = Broker::Here;
}

void Carrier::Away(int error) {
  if (error == 0 || broker_.exchange(Broker::Away) == Broker::Away) return;  // no news
  BRIDGE_LOG(bridge::kLogWarn, "MQTT broker %s is away: %s", address_.c_str(),
             mosquitto_strerror(error));
}

void Carrier::Receive(const char* text, int size) noexcept try {
  in_->Publish(nlohmann::json::parse(text, text + size).get<Reading>());
} catch (const std::exception& error) {
  BRIDGE_LOG(bridge::kLogWarn, "MQTT topic %s: %s", topic_.c_str(), error.what());
}

}  // namespace mqtt
