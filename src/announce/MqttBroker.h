#ifndef TAVRO_MQTTBROKER_H
#define TAVRO_MQTTBROKER_H

#include "Service.h"

// Announces the MQTT broker of the vehicle network, with its brand, protocol version and topic.
class MqttBroker : public Service {
public:
    explicit MqttBroker(const Configuration& configuration);
    ~MqttBroker() override;
};

#endif
