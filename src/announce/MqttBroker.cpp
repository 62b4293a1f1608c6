#include "MqttBroker.h"

MqttBroker::MqttBroker(const Configuration& configuration) : Service(configuration) {
    publisher.addTxt("brand=" + configuration.getString("brand"));
    publisher.addTxt("proto=" + configuration.getString("proto"));
    publisher.addTxt("topic=" + configuration.getString("topic"));
    publisher.start();
}

MqttBroker::~MqttBroker() = default;
