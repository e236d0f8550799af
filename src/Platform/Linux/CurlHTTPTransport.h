#pragma once

#include "AIKit/HTTPTransport.h"

#include <cstddef>

namespace tavrick {

// HTTP and HTTPS through libcurl: the request's own time-out for the whole exchange, certificates
// checked, redirects not followed, and a cap on the size of an answer. Safe from any thread; each
// call uses a handle of its own.
class CurlHTTPTransport final : public HTTPTransport {
public:
    static constexpr std::size_t maximumResponseBytes = 8 * 1024 * 1024;
    static constexpr long connectTimeoutSeconds = 15;

    CurlHTTPTransport();
    Result send(const HTTPClientRequest& request, const CancellationFlag& cancelled) override;
};

} // namespace tavrick
