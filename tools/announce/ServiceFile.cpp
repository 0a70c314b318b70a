// The file of --from: JSON, of which each key's place is kept for messages.
// Everything happens on the main thread; there is no lock.

#include "ServiceFile.h"

#include <algorithm>
#include <array>
#include <exception>
#include <iterator>
#include <string_view>
#include <utility>

#include "Nearest.h"
#include "Options.h"

namespace orvx::announce {

using nlohmann::json;

namespace {

constexpr const char* kProperties = "properties";
constexpr std::array kKnown{"name",        "port",     "host",       "uri",
                            "description", "versions", "privileges", "serviceCategories",
                            kProperties};

/// Walks through a text and counts: the parser tells a key right after it has read it.
struct Counted {
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    reference operator*() const { return *at; }
    Counted& operator++() {
        ++at;
        ++*count;
        return *this;
    }
    bool operator==(const Counted& other) const { return at == other.at; }
    bool operator!=(const Counted& other) const { return at != other.at; }

    const char* at;
    std::size_t* count;
};

/// Of the byte with that number, from 0. Its work grows with that number: for messages only.
std::string place(const ServiceFileText& file, std::size_t byte) {
    const std::string_view before = std::string_view(file.text).substr(0, byte);
    const auto lines = std::count(before.begin(), before.end(), '\n');
    const auto column = before.size() - (before.rfind('\n') + 1);
    return file.name + ":" + std::to_string(lines + 1) + ":" + std::to_string(column + 1) + ": ";
}

std::string quoted(const std::string& text) {
    return json(text).dump(-1, ' ', true, json::error_handler_t::replace);
}

void checkKeys(const ReadService& service) {
    for (const auto& [key, value] : service.description.items()) {
        if (std::find(kKnown.begin(), kKnown.end(), key) == kKnown.end()) {
            service.refuse(key, "unknown key " + quoted(key) + "; is " +
                                    quoted(nearest(key, {kKnown.begin(), kKnown.end()})) +
                                    " meant? Keys of your own belong under \"properties\"");
        }
    }
}

void takeProperties(ReadService& service) {
    const auto found = service.description.find(kProperties);
    if (found == service.description.end()) {
        return;
    }
    const json properties = *found;
    service.description.erase(found);
    if (!properties.is_object()) {
        service.refuse(kProperties, "\"properties\" is no object");
    }
    for (const auto& [key, value] : properties.items()) {
        if (std::find(kKnown.begin(), kKnown.end(), key) != kKnown.end() || key == "id") {
            service.refuse(kProperties, quoted(key) + " cannot be one of \"properties\"");
        }
        service.description[key] = value;
    }
}

/// Notes where each description of the list begins, and each of its keys. (The parser's callback
/// would do for that, but its work grows with the square of the list's length.)
class Places : public json::json_sax_t {
  public:
    Places(std::shared_ptr<const ServiceFileText> file, const std::size_t& count)
        : file_(std::move(file)), count_(count) {}

    bool null() override { return true; }
    bool boolean(bool) override { return true; }
    bool number_integer(json::number_integer_t) override { return true; }
    bool number_unsigned(json::number_unsigned_t) override { return true; }
    bool number_float(json::number_float_t, const std::string&) override { return true; }
    bool string(std::string&) override { return true; }
    bool binary(json::binary_t&) override { return true; }
    bool start_array(std::size_t) override {
        ++depth_;
        return true;
    }
    bool end_array() override {
        --depth_;
        return true;
    }
    bool start_object(std::size_t) override {
        if (depth_++ == 1) {
            services.push_back({{}, file_, count_ - 1});
        }
        return true;
    }
    bool end_object() override { return end_array(); }
    bool key(std::string& parsed) override {
        const std::string& key = parsed;
        if (depth_ == 2 && !services.empty()) {
            const std::size_t begin = count_ - std::min(count_, key.size() + 2);
            if (!services.back().keysAt.emplace(key, begin).second) {
                throw UsageError(place(*file_, begin) + quoted(key) + " stands there twice");
            }
        }
        return true;
    }
    bool parse_error(std::size_t, const std::string&, const json::exception&) override {
        return false;
    }

    std::vector<ReadService> services;

  private:
    std::shared_ptr<const ServiceFileText> file_;
    const std::size_t& count_;
    std::size_t depth_ = 0;
};

std::string contentOf(const std::string& name, Reading reading) {
    try {
        return readInputFile(name, reading);
    } catch (const std::exception& error) {
        throw UsageError(std::string("--from: cannot read ") + error.what());
    }
}

std::string withoutPrefix(const std::string& message) {
    const auto end = message.find(": ");
    return end == std::string::npos ? message : message.substr(end + 2);
}

}  // namespace

void ReadService::refuse(const std::string& key, const std::string& why) const {
    const auto found = keysAt.find(key);
    const std::size_t byte = found == keysAt.end() ? at : found->second;
    throw UsageError((file == nullptr ? "" : place(*file, byte)) + why);
}

std::vector<ReadService> readServiceFile(const std::string& name, Reading reading) {
    const auto file =
        std::make_shared<const ServiceFileText>(ServiceFileText{name, contentOf(name, reading)});
    const std::string& text = file->text;
    json content;
    try {
        content = json::parse(text);
    } catch (const json::parse_error& error) {
        throw UsageError(place(*file, error.byte - (error.byte > 0 ? 1 : 0)) +
                         withoutPrefix(error.what()));
    }
    std::size_t count = 0;
    Places places(file, count);
    json::sax_parse(Counted{text.data(), &count}, Counted{text.data() + text.size(), &count},
                    &places);
    std::vector<ReadService>& services = places.services;
    if (!content.is_array() || content.empty() || services.size() != content.size()) {
        throw UsageError(name + ": not a JSON list of descriptions");
    }
    for (std::size_t i = 0; i < services.size(); ++i) {
        services[i].description = std::move(content[i]);
        checkKeys(services[i]);
        takeProperties(services[i]);
    }
    return std::move(services);
}

}  // namespace orvx::announce
