#include "Platform/Linux/CurlHTTPTransport.h"

#include <curl/curl.h>

#include <memory>
#include <mutex>

namespace tavrick {

namespace {

struct Exchange {
    std::string body;
    bool tooLarge = false;
    CancellationFlag cancelled;
};

std::size_t collect(char* data, std::size_t size, std::size_t count, void* context) {
    auto* exchange = static_cast<Exchange*>(context);
    std::size_t bytes = size * count;
    if (exchange->body.size() + bytes > CurlHTTPTransport::maximumResponseBytes) {
        exchange->tooLarge = true;
        return 0;  // libcurl ends the transfer with a write error
    }
    exchange->body.append(data, bytes);
    return bytes;
}

int progress(void* context, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    auto* exchange = static_cast<Exchange*>(context);
    return exchange->cancelled && exchange->cancelled->load() ? 1 : 0;
}

struct EasyDeleter {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct ListDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

} // namespace

CurlHTTPTransport::CurlHTTPTransport() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

HTTPTransport::Result CurlHTTPTransport::send(const HTTPClientRequest& request, const CancellationFlag& cancelled) {
    std::unique_ptr<CURL, EasyDeleter> easy(curl_easy_init());
    if (!easy) return std::string("The request could not be prepared.");
    Exchange exchange;
    exchange.cancelled = cancelled;
    std::unique_ptr<curl_slist, ListDeleter> headers;
    for (const auto& [name, value] : request.headers) {
        std::string line = name + ": " + value;
        curl_slist* appended = curl_slist_append(headers.get(), line.c_str());
        if (!appended) return std::string("The request could not be prepared.");
        headers.release();
        headers.reset(appended);
    }
    char errorText[CURL_ERROR_SIZE] = {};
    CURL* handle = easy.get();
    curl_easy_setopt(handle, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, static_cast<long>(request.timeoutSeconds * 1000));
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT, connectTimeoutSeconds);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &exchange);
    curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, progress);
    curl_easy_setopt(handle, CURLOPT_XFERINFODATA, &exchange);
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, errorText);
    curl_easy_setopt(handle, CURLOPT_ACCEPT_ENCODING, "");
    if (request.method == "POST") {
        curl_easy_setopt(handle, CURLOPT_POST, 1L);
        curl_easy_setopt(handle, CURLOPT_POSTFIELDS, request.body.data());
        curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
    } else if (request.method != "GET") {
        curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    }

    CURLcode code = curl_easy_perform(handle);
    if (code != CURLE_OK) {
        if (exchange.tooLarge) return std::string("The answer was too large.");
        if (code == CURLE_ABORTED_BY_CALLBACK) return std::string("The request was cancelled.");
        if (code == CURLE_OPERATION_TIMEDOUT) return std::string("The request timed out.");
        // libcurl's own words name the host at most, never a header or the body.
        return std::string(errorText[0] ? errorText : curl_easy_strerror(code));
    }
    long status = 0;
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
    return HTTPClientResponse{status, std::move(exchange.body)};
}

} // namespace tavrick
