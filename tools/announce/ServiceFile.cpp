// Reads the JSON file of --from, and records the position of each key for error messages.
// Runs on the main thread; there is no lock.

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

/// The functions that check, copy and convert a description call themselves for each level.
constexpr std::size_t kMaxDepth = 100;

/// An iterator that counts its increments: the parser reports each key right after reading it, so
/// the count is the key's position.
struct CountingIterator {
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    reference operator*() const { return *at; }
    CountingIterator& operator++() {
        ++at;
        ++*count;
        return *this;
    }
    bool operator==(const CountingIterator& other) const { return at == other.at; }
    bool operator!=(const CountingIterator& other) const { return at != other.at; }

    const char* at;
    std::size_t* count;
};

/// "file:line:column: " of a byte. Takes time linear in its offset: for error messages only.
std::string position(const ServiceFileText& file, std::size_t byte) {
    const std::string_view before = std::string_view(file.text).substr(0, byte);
    const auto lines = std::count(before.begin(), before.end(), '\n');
    const auto column = before.size() - (before.rfind('\n') + 1);
    return file.name + ":" + std::to_string(lines + 1) + ":" + std::to_string(column + 1) + ": ";
}

std::string quoted(const std::string& text) {
    return json(text).dump(-1, ' ', true, json::error_handler_t::replace);
}

void checkKeys(const ParsedService& service) {
    for (const auto& [key, value] : service.description.items()) {
        if (std::find(kKnown.begin(), kKnown.end(), key) == kKnown.end()) {
            service.fail(key, "unknown key " + quoted(key) + "; is " +
                                  quoted(nearest(key, {kKnown.begin(), kKnown.end()})) +
                                  " meant? Keys of your own belong under \"properties\"");
        }
    }
}

void mergeProperties(ParsedService& service) {
    const auto found = service.description.find(kProperties);
    if (found == service.description.end()) {
        return;
    }
    const json properties = *found;
    service.description.erase(found);
    if (!properties.is_object()) {
        service.fail(kProperties, "\"properties\" is no object");
    }
    for (const auto& [key, value] : properties.items()) {
        if (std::find(kKnown.begin(), kKnown.end(), key) != kKnown.end() || key == "id") {
            service.fail(kProperties, quoted(key) + " cannot be one of \"properties\"");
        }
        service.description[key] = value;
    }
}

/// Records the position of each description and of its keys. The parser's callback could do that,
/// too, but takes time quadratic in the length of the list.
class PositionRecorder : public json::json_sax_t {
  public:
    PositionRecorder(std::shared_ptr<const ServiceFileText> file, const std::size_t& count)
        : file_(std::move(file)), count_(count) {}

    bool null() override { return true; }
    bool boolean(bool) override { return true; }
    bool number_integer(json::number_integer_t) override { return true; }
    bool number_unsigned(json::number_unsigned_t) override { return true; }
    bool number_float(json::number_float_t, const std::string&) override { return true; }
    bool string(std::string&) override { return true; }
    bool binary(json::binary_t&) override { return true; }
    bool start_array(std::size_t) override {
        if (++depth_ > kMaxDepth) {
            throw UsageError(position(*file_, count_ - 1) + "nested too deeply");
        }
        return true;
    }
    bool end_array() override {
        --depth_;
        return true;
    }
    bool start_object(std::size_t) override {
        if (depth_ == 1) {
            services.push_back({{}, file_, count_ - 1});
        }
        return start_array({});
    }
    bool end_object() override { return end_array(); }
    bool key(std::string& parsed) override {
        const std::string& key = parsed;
        if (depth_ == 2 && !services.empty()) {
            const std::size_t begin = count_ - std::min(count_, key.size() + 2);
            if (!services.back().keyOffsets.emplace(key, begin).second) {
                throw UsageError(position(*file_, begin) + quoted(key) + " stands there twice");
            }
        }
        return true;
    }
    bool parse_error(std::size_t, const std::string&, const json::exception&) override {
        return false;
    }

    std::vector<ParsedService> services;

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

void ParsedService::fail(const std::string& key, const std::string& why) const {
    const auto found = keyOffsets.find(key);
    const std::size_t byte = found == keyOffsets.end() ? offset : found->second;
    throw UsageError((file == nullptr ? "" : position(*file, byte)) + why);
}

std::vector<ParsedService> readServiceFile(const std::string& name, Reading reading) {
    const auto file =
        std::make_shared<const ServiceFileText>(ServiceFileText{name, contentOf(name, reading)});
    const std::string& text = file->text;
    json content;
    try {
        content = json::parse(text);
    } catch (const json::parse_error& error) {
        throw UsageError(position(*file, error.byte - (error.byte > 0 ? 1 : 0)) +
                         withoutPrefix(error.what()));
    }
    std::size_t count = 0;
    PositionRecorder recorder(file, count);
    json::sax_parse(CountingIterator{text.data(), &count},
                    CountingIterator{text.data() + text.size(), &count}, &recorder);
    std::vector<ParsedService>& services = recorder.services;
    if (!content.is_array() || content.empty() || services.size() != content.size()) {
        throw UsageError(name + ": not a JSON list of descriptions");
    }
    for (std::size_t i = 0; i < services.size(); ++i) {
        services[i].description = std::move(content[i]);
        checkKeys(services[i]);
        mergeProperties(services[i]);
    }
    return std::move(services);
}

}  // namespace orvx::announce
