// Builds and keeps lists of header lines. A list that a transfer uses lives as long as that does,
// whether it is kept here or not.
// Entered by the I/O thread only; there is no lock.

#include "HeaderLists.h"

#include <new>

namespace orvx::communication {

namespace {

/// libcurl reads "Name:" as a header to leave out, and "Name;" as one with an empty value.
std::string lineOf(const std::string& name, const std::string& value) {
    const bool isEmpty = value.find_first_not_of(' ') == std::string::npos;
    return isEmpty ? name + ';' : name + ": " + value;
}

std::string ownLineOf(const std::string& name, const std::string& value) {
    return value.empty() ? name + ':' : lineOf(name, value);
}

void append(HeaderLists::List& list, const std::string& line) {
    curl_slist* const longer = curl_slist_append(list.get(), line.c_str());
    if (longer == nullptr) {
        throw std::bad_alloc();
    }
    if (!list) {
        list = HeaderLists::List(longer, curl_slist_free_all);
    }
}

void appendCredentials(HeaderLists::List& list, const std::string& name, const std::string& value) {
    if (!value.empty()) {
        append(list, name + ": " + value);
    }
}

std::string valueOf(const std::shared_ptr<HttpCredentials>& credentials) {
    return credentials ? credentials->headerValue() : std::string();
}

HeaderLists::List build(const HttpConfig& config, const std::string& authorization,
                        const std::string& contentType, const std::string& accept) {
    HeaderLists::List list;
    append(list, "Expect:");
    appendCredentials(list, "Authorization", authorization);
    append(list, ownLineOf("Content-Type", contentType));
    append(list, ownLineOf("Accept", accept));
    for (const auto& [name, value] : config.headers) {
        append(list, lineOf(name, value));
    }
    return list;
}

}  // namespace

HeaderLists::List HeaderLists::get(const HttpConfig& config, const std::string& contentType,
                                   const std::string& accept) {
    constexpr std::size_t kMost = 8;
    std::string authorization = valueOf(config.credentials);
    if (authorization != authorization_) {
        entries_.clear();
        authorization_ = std::move(authorization);
    }
    for (const Entry& entry : entries_) {
        if (entry.contentType == contentType && entry.accept == accept) {
            return entry.list;
        }
    }
    if (entries_.size() == kMost) {
        entries_.clear();
    }
    entries_.push_back({contentType, accept, build(config, authorization_, contentType, accept)});
    return entries_.back().list;
}

HeaderLists::List HeaderLists::forProxy(const HttpConfig& config) {
    List list;
    appendCredentials(list, "Proxy-Authorization", valueOf(config.proxyCredentials));
    return list;
}

}  // namespace orvx::communication
