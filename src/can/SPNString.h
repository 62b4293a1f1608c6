#ifndef TAVRO_SPNSTRING_H
#define TAVRO_SPNSTRING_H

#include "SPN.h"

// A text field of the payload.
class SPNString : public SPN {
public:
    explicit SPNString(const std::string& value);
    SPNString(const SPNString& other);
    ~SPNString() override;

    const std::string& getValue() const { return value; }

    std::string toString() const override;

private:
    std::string value;
};

#endif
