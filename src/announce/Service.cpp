#include "Service.h"

#include "Logger.h"

Service::Service(const Configuration& configuration) {
    publisher.setName(configuration.getString("service_name"));
    publisher.setType(configuration.getString("service_type"));
    publisher.setProtocol(configuration.getString("service_protocol"));
    publisher.setDomain(configuration.getString("service_domain"));
    const std::string portText = configuration.getString("service_port");
    uint16_t port = 0;
    if (parsePort(portText, port)) {
        publisher.setPort(port);
    } else {
        // Announcing a made-up port would send clients to the wrong place.
        LOG(0) << "No valid \"service_port\" in configuration (\"" << portText << "\"). Service \""
               << publisher.name() << "\" not announced.";
        publisher.withhold();
    }
    publisher.addTxt("txtversion=" + configuration.getString("service_txtversion"));
    publisher.addTxt("version=" + configuration.getString("service_version"));
    if (configuration.hasKey("service_path"))
        publisher.addTxt("path=" + configuration.getString("service_path"));
}

Service::~Service() = default;

void Service::announce() {
    publisher.start();
}

bool parsePort(const std::string& text, uint16_t& port) {
    if (text.empty() || text.size() > 5)
        return false;
    unsigned value = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return false;
        value = value * 10 + static_cast<unsigned>(c - '0');
    }
    if (value > 65535)
        return false;
    port = static_cast<uint16_t>(value);
    return true;
}
