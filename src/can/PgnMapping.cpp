#include "PgnMapping.h"

#include "DecodedFrame.h"
#include "Logger.h"
#include "NetHelpers.h"
#include "SPNNumeric.h"
#include "SPNStatus.h"
#include "SPNString.h"
#include "XmlText.h"

#include <json/json.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <memory>

namespace {

// Accepts what the JSON library converts without complaint; an absent key reads as 0 or "".
bool readUInt(const Json::Value& object, const char* key, uint32_t& out) {
    const Json::Value& value = object[key];
    if (!value.isConvertibleTo(Json::uintValue))
        return false;
    out = value.asUInt();
    return true;
}

bool readDouble(const Json::Value& object, const char* key, double& out) {
    const Json::Value& value = object[key];
    if (!value.isConvertibleTo(Json::realValue))
        return false;
    out = value.asDouble();
    return true;
}

bool readString(const Json::Value& object, const char* key, std::string& out) {
    const Json::Value& value = object[key];
    if (!value.isConvertibleTo(Json::stringValue))
        return false;
    // Names and units go into documents as they are.
    out = XmlText::clean(value.asString());
    return true;
}

bool readDescriptions(const Json::Value& object, std::vector<std::string>& out) {
    const Json::Value& value = object["descriptions"];
    if (value.isNull())
        return true;
    if (!value.isArray())
        return false;
    for (const Json::Value& text : value) {
        if (!text.isConvertibleTo(Json::stringValue))
            return false;
        out.push_back(text.asString());
    }
    return true;
}

// Positions are summed in 64 bits: byte offsets from the file may be as large as 2^32 - 1.
void setField(SpnRule& rule, uint64_t position, uint64_t width) {
    if (width == 0 || position + width > 64) {
        rule.position = 0;
        rule.width = 0;
        return;
    }
    rule.position = static_cast<uint32_t>(position);
    rule.width = static_cast<uint32_t>(width);
}

// Fills rule from a JSON rule; returns the key of the wrong type, or nullptr. Only the keys
// that the rule's kind reads are checked.
const char* readRule(const Json::Value& json, PgnMapping::Format format, SpnRule& rule) {
    if (!readUInt(json, "type", rule.type))
        return "type";
    if (rule.type > SPN::String)
        return nullptr;
    if (!readUInt(json, "number", rule.number))
        return "number";
    if (!readString(json, "name", rule.name))
        return "name";
    if (rule.type == SPN::String)
        return nullptr;

    uint32_t offset = 0;
    uint32_t bitOffset = 0;
    uint32_t bitSize = 0;
    uint32_t byteSize = 0;
    if (!readUInt(json, "offset", offset))
        return "offset";
    const bool byteAligned = rule.type == SPN::Numeric && format == PgnMapping::Format::Vehicle;
    if (!byteAligned) {
        if (!readUInt(json, "bitOffset", bitOffset))
            return "bitOffset";
        if (!readUInt(json, "bitSize", bitSize))
            return "bitSize";
    }
    if (rule.type == SPN::Status) {
        if (!readDescriptions(json, rule.descriptions))
            return "descriptions";
        setField(rule, bitOffset + 8 * uint64_t(offset), bitSize);
        return nullptr;
    }
    if (!readUInt(json, "byteSize", byteSize))
        return "byteSize";
    if (!readDouble(json, "formatGain", rule.gain))
        return "formatGain";
    if (!readDouble(json, "formatOffset", rule.offset))
        return "formatOffset";
    if (!readString(json, "units", rule.units))
        return "units";
    setField(rule, bitOffset + 8 * uint64_t(offset), bitSize + 8 * uint64_t(byteSize));
    return nullptr;
}

// Piece number index of text split at '*', as splitString cuts it: no piece for an empty
// text and none after a final '*'.
bool stringField(const uint8_t* text, size_t length, size_t index, size_t& start, size_t& end) {
    size_t seen = 0;
    start = 0;
    for (size_t i = 0; i < length; ++i) {
        if (text[i] != '*')
            continue;
        if (seen == index) {
            end = i;
            return true;
        }
        ++seen;
        start = i + 1;
    }
    end = length;
    return seen == index && start < length;
}

} // namespace

PgnMapping::PgnMapping(const std::string& path, Format format) {
    load(path, format);
}

void PgnMapping::load(const std::string& path, Format format) {
    std::ifstream file(path, std::ios::binary);
    if (!file.is_open()) {
        LOG(0) << "File not found!";
    }
    // Read with a bound of its own: a device file or a runaway generator has no end.
    std::string text;
    char chunk[4096];
    while (text.size() <= maxFileSize && file.read(chunk, sizeof chunk).gcount() > 0)
        text.append(chunk, static_cast<size_t>(file.gcount()));
    if (text.size() > maxFileSize) {
        LOG(0) << path << " is larger than " << maxFileSize << " bytes, not read.";
        return;
    }
    Json::CharReaderBuilder builder;
    builder["stackLimit"] = maxJsonDepth;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value mapping;
    std::string errors;
    bool parsed = false;
    try {
        parsed = reader->parse(text.data(), text.data() + text.size(), &mapping, &errors);
    } catch (const std::exception& error) {
        // JsonCpp throws instead of reporting when nesting goes too deep; what it built up
        // to there is no mapping.
        errors = error.what();
        mapping = Json::Value();
    }
    std::string().swap(text);
    if (!parsed) {
        LOG(0) << "File parsing failed!";
        while (!errors.empty() && errors.back() == '\n')
            errors.pop_back();
        LOG(0) << errors;
    }
    if (!mapping.isArray()) {
        LOG(0) << "File is formatted incorrectly!";
        return;
    }

    const char* const rulesKey = format == Format::Vehicle ? "data" : "spns";
    std::map<uint16_t, std::vector<SpnRule>> byPgn;
    for (Json::ArrayIndex i = 0; i < mapping.size(); ++i) {
        const Json::Value& entry = mapping[i];
        if (!entry.isObject()) {
            LOG(0) << path << ": entry " << i << " is not an object, skipped.";
            continue;
        }
        const Json::Value& pgnValue = entry["pgn"];
        if (!pgnValue.isConvertibleTo(Json::uintValue) && !pgnValue.isUInt64()) {
            LOG(0) << path << ": entry " << i << ": \"pgn\" is not an unsigned integer, skipped.";
            continue;
        }
        // Beyond 16 bits no frame can carry it.
        if (pgnValue.asLargestUInt() > 0xFFFF)
            continue;
        const uint16_t pgn = static_cast<uint16_t>(pgnValue.asLargestUInt());
        std::vector<SpnRule>& rules = byPgn[pgn];
        const Json::Value& list = entry[rulesKey];
        if (!list.isNull() && !list.isArray()) {
            LOG(0) << path << ": PGN " << pgn << ": \"" << rulesKey
                   << "\" is not an array, its rules are skipped.";
            continue;
        }
        for (Json::ArrayIndex j = 0; j < list.size(); ++j) {
            if (!list[j].isObject()) {
                LOG(0) << path << ": PGN " << pgn << ": rule " << j
                       << " is not an object, skipped.";
                continue;
            }
            SpnRule rule;
            if (const char* key = readRule(list[j], format, rule)) {
                LOG(0) << path << ": PGN " << pgn << ": rule " << j << ": \"" << key
                       << "\" has the wrong type, rule skipped.";
                continue;
            }
            if (rule.type <= SPN::String)
                rules.push_back(std::move(rule));
        }
    }
    groups.reserve(byPgn.size());
    for (auto& [pgn, rules] : byPgn) {
        const bool strings = std::any_of(rules.begin(), rules.end(), [](const SpnRule& rule) {
            return rule.type == SPN::String;
        });
        groups.push_back(Group{pgn, std::move(rules), strings});
    }
}

const PgnMapping::Group* PgnMapping::find(uint16_t pgn) const {
    auto it = std::lower_bound(groups.begin(), groups.end(), pgn,
                               [](const Group& group, uint16_t key) { return group.pgn < key; });
    return it != groups.end() && it->pgn == pgn ? &*it : nullptr;
}

bool PgnMapping::decodeRules(const Group& group, uint64_t raw, const uint8_t* text,
                             size_t textLength, DecodedFrame& frame) {
    static const std::string noDescription;
    size_t stringIndex = 0;
    for (const SpnRule& rule : group.rules) {
        SPN* spn = nullptr;
        if (rule.type == SPN::Numeric) {
            spn = new SPNNumeric(
                bitFieldValue(raw, rule.position, rule.width, rule.gain, rule.offset), rule.units);
        } else if (rule.type == SPN::Status) {
            uint64_t field = 0;
            if (rule.width != 0) {
                const uint64_t mask =
                    rule.width == 64 ? ~uint64_t(0) : (uint64_t(1) << rule.width) - 1;
                field = (raw >> rule.position) & mask;
            }
            const uint32_t value = field > 0xFFFFFFFFu ? 0xFFFFFFFFu : uint32_t(field);
            spn = new SPNStatus(value, value < rule.descriptions.size() ? rule.descriptions[value]
                                                                        : noDescription);
        } else {
            size_t start = 0;
            size_t end = 0;
            if (!stringField(text, textLength, stringIndex, start, end)) {
                LOG(1) << "There are more strings defined in spn: " << rule.number
                       << " than there are in the actual message.";
                LOG(1) << std::string(reinterpret_cast<const char*>(text), textLength);
                return false;
            }
            ++stringIndex;
            // Padding and stray bytes of the bus cannot go into a document.
            spn = new SPNString(XmlText::clean(
                std::string(reinterpret_cast<const char*>(text) + start, end - start)));
        }
        spn->setNumber(static_cast<uint16_t>(rule.number & 0xFFFF));
        spn->setName(rule.name);
        frame.addSpn(spn);
    }
    return true;
}
