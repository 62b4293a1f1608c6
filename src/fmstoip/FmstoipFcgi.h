#ifndef TAVRO_FMSTOIPFCGI_H
#define TAVRO_FMSTOIPFCGI_H

#include "Configuration.h"
#include "FcgiHandler.h"
#include "FcgiHook.h"
#include "PGNHook.h"
#include "Service.h"

#include <pugixml.hpp>

#include <string>

// The HTTP resources of the FMStoIP service: get the latest document of a PGN, add a PGN to
// the delivered set, remove it. Each has its own path and announcement; the body is one XML
// element ("PGNGet", "PGNReq", "PGNRem") holding the PGN text. Answers requests that the web
// server received on HTTP port 8085.
class FmstoipFcgi : public FcgiHook {
public:
    FmstoipFcgi(const Configuration& addConf, const Configuration& removeConf,
                const Configuration& getConf);
    ~FmstoipFcgi() override;

    // Before the front end starts; the hook's owner outlives this object.
    void set_pgn_hook(PGNHook* hook);

    // Every STDIN record is answered on its own; always 0.
    int handle_data(FastCGIServer::Request& request) override;
    int handle_complete(FastCGIServer::Request& request) override;

    static void sendResponse(FastCGIServer::Request& request, const std::string& status,
                             const std::string& mediaType, const std::string& body);

private:
    Service addService;
    Service removeService;
    Service getService;
    const std::string addPath;
    const std::string removePath;
    const std::string getPath;
    FcgiHandler registration;
    std::string response;
    PGNHook* pgnHook = nullptr;
    pugi::xml_document document;
};

#endif
