#include "Connection.h"

#include "Protocol.h"

#include <algorithm>

namespace FastCGIServer {

namespace {

uint16_t load16(const char* bytes) {
    return static_cast<uint16_t>((static_cast<uint8_t>(bytes[0]) << 8) |
                                 static_cast<uint8_t>(bytes[1]));
}

// What the string has allocated; a short one lives inside the object.
std::size_t heapOf(const std::string& text) {
    static const std::size_t inPlace = std::string().capacity();
    return text.capacity() > inPlace ? text.capacity() : 0;
}

// What appending extra bytes adds to the string's allocation (it grows by doubling).
std::size_t growth(const std::string& text, std::size_t extra) {
    const std::size_t needed = text.size() + extra;
    if (needed <= text.capacity())
        return 0;
    return std::max(needed, 2 * text.capacity()) - heapOf(text);
}

// Buffers that once held a large record are not kept that large.
void trim(std::string& text) {
    if (text.empty() && text.capacity() > 16 * 1024)
        std::string().swap(text);
}

} // namespace

Callbacks::Callbacks()
    : request(std::make_unique<HandlerBase>()), data(std::make_unique<HandlerBase>()),
      complete(std::make_unique<HandlerBase>()) {}

Connection::Connection(const Callbacks& callbacks, const Limits& limits)
    : lastProgress(std::chrono::steady_clock::now()), callbacks(callbacks), limits(limits) {}

void Connection::receive(const char* data, std::size_t size) {
    if (halted)
        return;
    input.append(data, size);
    consume();
    trim(input);
}

void Connection::consume() {
    std::size_t pos = 0;
    while (input.size() - pos >= headerLength) {
        const char* header = input.data() + pos;
        if (static_cast<uint8_t>(header[0]) != protocolVersion) {
            // Nothing after a broken header can be framed again.
            closing = true;
            halted = true;
            input.clear();
            return;
        }
        const std::size_t contentLength = load16(header + 4);
        const std::size_t total = headerLength + contentLength + static_cast<uint8_t>(header[6]);
        if (input.size() - pos < total)
            break;
        onRecord(static_cast<uint8_t>(header[1]), load16(header + 2), header + headerLength,
                 contentLength);
        if (halted) {
            input.clear();
            return;
        }
        pos += total;
    }
    input.erase(0, pos);
}

void Connection::onRecord(uint8_t type, uint16_t id, const char* content, std::size_t length) {
    switch (type) {
    case BEGIN_REQUEST:
        beginRequest(id, content, length);
        break;
    case ABORT_REQUEST:
        abortRequest(id);
        break;
    case PARAMS:
        params(id, content, length);
        break;
    case STDIN:
        stdinData(id, content, length);
        break;
    case DATA:
        break;
    case GET_VALUES:
        answerGetValues(content, length);
        break;
    default:
        answerUnknownType(type);
        break;
    }
}

void Connection::beginRequest(uint16_t id, const char* content, std::size_t length) {
    if (length < 8)
        return;
    if ((static_cast<uint8_t>(content[2]) & KEEP_CONN) == 0)
        closeAfterEnd = true;
    if (load16(content) != RESPONDER) {
        appendEndRequest(output, id, 0, UNKNOWN_ROLE);
        if (closeAfterEnd)
            closing = true;
        return;
    }
    requests.erase(id);
    auto request = std::make_unique<Request>();
    Request& fresh = *request;
    requests[id] = std::move(request);
    progressed = true;
    admit(id, fresh, 0);
}

void Connection::abortRequest(uint16_t id) {
    auto found = requests.find(id);
    if (found == requests.end())
        return;
    appendEndRequest(output, id, 1, REQUEST_COMPLETE);
    if (closeAfterEnd)
        closing = true;
    requests.erase(found);
    progressed = true;
}

void Connection::params(uint16_t id, const char* content, std::size_t length) {
    auto found = requests.find(id);
    if (found == requests.end() || found->second->paramsComplete)
        return;
    Request& request = *found->second;
    progressed = true;
    if (length > 0) {
        // Pairs are decoded as they come, each charged with its storage, so that what a
        // request holds is what it costs: many tiny pairs cost far more than their bytes.
        if (!admit(id, request, growth(request.paramsBuffer, length)))
            return;
        request.paramsBuffer.append(content, length);
        std::size_t pos = 0;
        std::string name;
        std::string value;
        while (readPair(request.paramsBuffer, pos, name, value)) {
            if (request.params.count(name) != 0)
                continue;
            const std::size_t cost = pairOverhead + name.size() + value.size();
            if (!admit(id, request, cost))
                return;
            request.paramsSize += cost;
            request.params.emplace(std::move(name), std::move(value));
        }
        request.paramsBuffer.erase(0, pos);
        trim(request.paramsBuffer);
        return;
    }
    // A pair cut off at the end is dropped.
    std::string().swap(request.paramsBuffer);
    request.paramsComplete = true;
    request.status = (*callbacks.request)(request);
    if (request.status == 0 && !request.in.empty())
        request.status = (*callbacks.data)(request);
    if (request.status == 0 && request.inComplete)
        request.status = (*callbacks.complete)(request);
    flushRequest(id, request);
}

void Connection::stdinData(uint16_t id, const char* content, std::size_t length) {
    auto found = requests.find(id);
    if (found == requests.end() || found->second->inComplete)
        return;
    Request& request = *found->second;
    progressed = true;
    if (length > 0) {
        // The answer of an ended request is out; the rest of its body has no reader.
        if (request.endSent || !admit(id, request, growth(request.in, length)))
            return;
        request.in.append(content, length);
        if (request.paramsComplete && request.status == 0) {
            request.status = (*callbacks.data)(request);
            flushRequest(id, request);
            trim(request.in);
        }
        return;
    }
    request.inComplete = true;
    if (request.paramsComplete && request.status == 0) {
        request.status = (*callbacks.complete)(request);
        flushRequest(id, request);
    }
}

bool Connection::admit(uint16_t id, Request& request, std::size_t extra) {
    const std::size_t held = heldBytes();
    const bool fits = held <= limits.maxHeldBytes && extra <= limits.maxHeldBytes - held;
    auto fitsAll = [this, extra] {
        const std::size_t total = footprint() + othersHeld;
        return total <= limits.maxTotalHeldBytes && extra <= limits.maxTotalHeldBytes - total;
    };
    if (fits && !fitsAll() && makeRoom) {
        const std::size_t total = footprint() + othersHeld;
        const std::size_t wanted =
            total + extra - std::min(total + extra, limits.maxTotalHeldBytes);
        othersHeld -= std::min(othersHeld, makeRoom(wanted));
    }
    const bool all = fitsAll();
    if (fits && all)
        return true;
    if (callbacks.limit != nullptr)
        callbacks.limit(request, fits);
    writeStream(output, STDOUT, id, std::string());
    writeStream(output, STDERR, id, std::string());
    appendEndRequest(output, id, 1, OVERLOADED);
    requests.erase(id);
    closing = true;
    halted = true;
    return false;
}

std::size_t Connection::heldBytes() const {
    std::size_t held = 0;
    for (const auto& entry : requests) {
        const Request& request = *entry.second;
        held += requestOverhead + heapOf(request.paramsBuffer) + request.paramsSize +
                heapOf(request.in);
    }
    return held;
}

std::size_t Connection::footprint() const {
    return connectionOverhead + heapOf(input) + heapOf(output) + heldBytes();
}

bool Connection::busy() const {
    if (!input.empty() || !output.empty())
        return true;
    for (const auto& entry : requests) {
        if (!entry.second->paramsComplete || !entry.second->inComplete)
            return true;
    }
    return false;
}

void Connection::shed() {
    requests.clear();
    std::string().swap(input);
    std::string().swap(output);
    closing = true;
    halted = true;
}

void Connection::answerGetValues(const char* content, std::size_t length) {
    static const ParamMap known = {
        {"FCGI_MAX_CONNS", "100"}, {"FCGI_MAX_REQS", "1000"}, {"FCGI_MPXS_CONNS", "1"}};
    const ParamMap asked = decodeParams(std::string(content, length));
    std::string pairs;
    for (const auto& entry : asked) {
        auto value = known.find(entry.first);
        if (value != known.end())
            encodeParam(pairs, value->first, value->second);
    }
    appendHeader(output, GET_VALUES_RESULT, 0, static_cast<uint16_t>(pairs.size()), 0);
    output += pairs;
}

void Connection::answerUnknownType(uint8_t type) {
    appendHeader(output, UNKNOWN_TYPE, 0, 8, 0);
    const char body[8] = {static_cast<char>(type), 0, 0, 0, 0, 0, 0, 0};
    output.append(body, sizeof body);
}

void Connection::flushRequest(uint16_t id, Request& request) {
    // Both are empty between callbacks, and hold nothing then.
    if (!request.out.empty()) {
        writeStream(output, STDOUT, id, request.out);
        std::string().swap(request.out);
    }
    if (!request.err.empty()) {
        writeStream(output, STDERR, id, request.err);
        std::string().swap(request.err);
    }
    if ((request.inComplete || request.status != 0) && !request.endSent) {
        writeStream(output, STDOUT, id, std::string());
        writeStream(output, STDERR, id, std::string());
        appendEndRequest(output, id, static_cast<uint32_t>(request.status), REQUEST_COMPLETE);
        if (closeAfterEnd)
            closing = true;
        request.endSent = true;
    }
}

void Connection::flushAll() {
    for (auto it = requests.begin(); it != requests.end();) {
        flushRequest(it->first, *it->second);
        if (it->second->paramsComplete && it->second->inComplete)
            it = requests.erase(it);
        else
            ++it;
    }
}

} // namespace FastCGIServer
