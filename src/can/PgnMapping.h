#ifndef TAVRO_PGNMAPPING_H
#define TAVRO_PGNMAPPING_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

class DecodedFrame;

// One signal rule of a mapping file, checked and converted once at load time.
struct SpnRule {
    uint32_t type = 0;   // SPN::Type
    uint32_t number = 0; // as in the file; SPNs keep the low 16 bits
    std::string name;
    // Field of the raw word in bits. A field that does not lie wholly within the 64 bits,
    // and a field of width 0, read as 0: both are stored as position 0, width 0.
    uint32_t position = 0;
    uint32_t width = 0;
    double gain = 0.0;
    double offset = 0.0;
    std::string units;
    std::vector<std::string> descriptions;
};

// The PGN entries of one JSON mapping file, grouped by PGN. The file is an array of entries
// {"pgn": n, "spns" or "data": [rules]}; several entries of one PGN apply in file order, so
// their rules are kept as one list in that order.
class PgnMapping {
public:
    enum class Format {
        Fms,     // rules under "spns"; numeric fields by bit position and bit/byte size
        Vehicle, // rules under "data"; numeric fields by whole bytes ("offset", "byteSize")
    };

    struct Group {
        uint16_t pgn;
        std::vector<SpnRule> rules;
        // Some rule reads a string field, which the data may lack.
        bool hasStrings = false;
    };

    // Bounds of a mapping file: a larger file, or one nested deeper (JsonCpp parses by
    // recursion), is refused whole like a file that does not parse. Parsing takes up to some
    // 55 bytes of memory per byte of the file (nested empty arrays), for a moment at start.
    static constexpr size_t maxFileSize = 1024 * 1024;
    static constexpr int maxJsonDepth = 64;

    // Logs what it cannot use at level 0; a bad file gives a mapping without entries.
    PgnMapping(const std::string& path, Format format);

    // The rules of all entries for pgn, or nullptr when no entry names it.
    const Group* find(uint16_t pgn) const;
    size_t size() const { return groups.size(); }

    // Appends one SPN per rule to frame. raw is the word that numeric and status fields are
    // read from; text is what string rules split at "*". False, after two level-1 lines,
    // when the text has fewer fields than the rules ask for; frame then holds a part of the
    // SPNs and is to be discarded.
    static bool decodeRules(const Group& group, uint64_t raw, const uint8_t* text,
                            size_t textLength, DecodedFrame& frame);

private:
    void load(const std::string& path, Format format);

    std::vector<Group> groups; // sorted by pgn
};

#endif
