#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace tavrick {

struct HTTPClientRequest {
    std::string method = "GET";
    std::string url;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    double timeoutSeconds = 60;

    // Method, URL and header names, with the values of credential headers replaced by "•••":
    // the only form of a request that may reach a log.
    std::string redactedDescription() const;
};

struct HTTPClientResponse {
    long status = 0;
    std::string body;
};

// Set from any thread to abandon a request in flight.
using CancellationFlag = std::shared_ptr<std::atomic<bool>>;

// One HTTP exchange. A transport failure (no connection, a time-out, a body cut short, a
// cancellation) is the system's description of it; any status is a response.
class HTTPTransport {
public:
    using Result = std::variant<HTTPClientResponse, std::string>;
    virtual ~HTTPTransport() = default;
    // Blocks the calling thread until the exchange ends.
    virtual Result send(const HTTPClientRequest& request, const CancellationFlag& cancelled) = 0;
};

} // namespace tavrick
