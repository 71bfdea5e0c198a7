#include "CurlExchange.h"

#include <memory>

namespace nimborra::testing {

namespace {

size_t collect(char* data, size_t size, size_t count, void* target) {
    static_cast<std::string*>(target)->append(data, size * count);
    return size * count;
}

size_t collectApnsId(char* data, size_t size, size_t count, void* target) {
    const std::string header(data, size * count);
    if (header.starts_with("apns-id: ")) {
        *static_cast<std::string*>(target) = header.substr(9, header.find_last_not_of("\r\n") - 8);
    }
    return size * count;
}

}  // namespace

HttpReply sendHttp2(const HttpRequest& request, CURL* connection) {
    std::unique_ptr<CURL, void (*)(CURL*)> owned(connection ? nullptr : curl_easy_init(),
                                                 curl_easy_cleanup);
    CURL* handle = connection ? connection : owned.get();
    curl_slist* headers = nullptr;
    for (const auto& header : request.headers) {
        headers = curl_slist_append(headers, header.c_str());
    }
    const bool tls = !request.caFile.empty() || !request.caPem.empty();
    HttpReply reply;
    curl_easy_setopt(handle, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(handle, CURLOPT_HTTP_VERSION,
                     tls ? CURL_HTTP_VERSION_2TLS : CURL_HTTP_VERSION_2_PRIOR_KNOWLEDGE);
    curl_blob ca{const_cast<char*>(request.caPem.data()), request.caPem.size(), CURL_BLOB_COPY};
    if (!request.caPem.empty()) {
        curl_easy_setopt(handle, CURLOPT_CAINFO_BLOB, &ca);
    } else if (!request.caFile.empty()) {
        curl_easy_setopt(handle, CURLOPT_CAINFO, request.caFile.c_str());
    }
    curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    curl_easy_setopt(handle, CURLOPT_POSTFIELDS, request.body.c_str());
    curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE, static_cast<long>(request.body.size()));
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &reply.body);
    curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, collectApnsId);
    curl_easy_setopt(handle, CURLOPT_HEADERDATA, &reply.apnsId);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT, 30L);
    reply.code = curl_easy_perform(handle);
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &reply.status);
    curl_easy_getinfo(handle, CURLINFO_HTTP_VERSION, &reply.version);
    curl_slist_free_all(headers);
    return reply;
}

}  // namespace nimborra::testing
