#ifndef TAVRO_SPNNUMERIC_H
#define TAVRO_SPNNUMERIC_H

#include "SPN.h"

// A scaled physical value; the unit carries its own leading blank when it needs one.
class SPNNumeric : public SPN {
public:
    SPNNumeric(double value, const std::string& unit);
    SPNNumeric(const SPNNumeric& other);
    ~SPNNumeric() override;

    double getValue() const { return value; }
    const std::string& getUnit() const { return unit; }

    std::string toString() const override;

private:
    double value;
    std::string unit;
};

#endif
