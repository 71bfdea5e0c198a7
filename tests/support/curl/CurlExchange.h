// One HTTP/2 request sent with libcurl, the way a push server's client library sends it, and
// what came back. For the tests that drive the provider API.
#pragma once

#include <curl/curl.h>

#include <string>
#include <vector>

namespace nimborra::testing {

struct HttpRequest {
    std::string url;
    std::string method = "POST";
    std::vector<std::string> headers;  // "name: value"
    std::string body;
    // TLS: the certificate to trust, as a file or as PEM text. Neither: cleartext HTTP/2 with
    // prior knowledge.
    std::string caFile;
    std::string caPem;
};

struct HttpReply {
    CURLcode code = CURLE_OK;
    long status = 0;
    long version = 0;  // CURL_HTTP_VERSION_2_0 when HTTP/2 was spoken
    std::string apnsId;
    std::string body;
};

// Sends on `connection` when one is given (its connection is reused), else on a new one.
HttpReply sendHttp2(const HttpRequest& request, CURL* connection = nullptr);

}  // namespace nimborra::testing
