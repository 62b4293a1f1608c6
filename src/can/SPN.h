#ifndef TAVRO_SPN_H
#define TAVRO_SPN_H

#include <cstdint>
#include <string>

// One decoded signal value of a frame. The kind code tells the derived class: 0 numeric,
// 1 status, 2 string.
class SPN {
public:
    enum Type : uint32_t { Numeric = 0, Status = 1, String = 2 };

    virtual ~SPN();

    uint32_t getType() const { return type; }
    uint16_t getNumber() const { return number; }
    void setNumber(uint16_t value) { number = value; }
    const std::string& getName() const { return name; }
    void setName(const std::string& value) { name = value; }

    // Diagnostic line, newline included.
    virtual std::string toString() const = 0;

protected:
    explicit SPN(uint32_t type);
    SPN(const SPN& other) = default;
    SPN& operator=(const SPN&) = delete;

    uint32_t type;
    uint16_t number = 0;
    std::string name;
};

#endif
