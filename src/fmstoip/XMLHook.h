#ifndef TAVRO_XMLHOOK_H
#define TAVRO_XMLHOOK_H

#include <sstream>

// Receives finished XML documents for delivery. Never deleted through this interface.
class XMLHook {
public:
    virtual void deliver(std::stringstream& document) = 0;

protected:
    ~XMLHook() = default;
};

#endif
