// Generic objects as JSON: the one place that knows the JSON library.
// Entered by any thread. Written under the object's lock, which nothing here can come back to.

#include <orvx/common/GenericObject.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <ostream>

namespace orvx::common {

namespace {

/// Whether a text is its own JSON between quotes. Most are, and the JSON library's way costs fifty
/// times as much.
bool isPlain(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](char character) {
        return character >= ' ' && character <= '~' && character != '"' && character != '\\';
    });
}

/// Writes lists and objects by itself and leaves their leaves to the JSON library: the library's
/// own lists and objects need memory when they are destroyed, and end the process where there is
/// none.
class JsonWriter {
    static constexpr std::size_t kUsualSize = 512;

  public:
    explicit JsonWriter(bool pretty) : pretty_(pretty) { text_.reserve(kUsualSize); }

    /// Throws a std::exception for a text that is not valid UTF-8.
    void write(const GenericObjectValue& value) {
        std::visit([this](const auto& content) { write(content); }, value.data());
    }
    void write(const GenericObjectValue::Object& object) {
        writeAll('{', object, '}', [this](const auto& member) {
            write(member.first);
            text_ += pretty_ ? ": " : ":";
            write(member.second);
        });
    }
    const std::string& text() const { return text_; }

  private:
    void write(const GenericObjectValue::List& list) {
        writeAll('[', list, ']', [this](const auto& value) { write(value); });
    }
    void write(const std::string& text) {
        if (isPlain(text)) {
            text_ += '"';
            text_ += text;
            text_ += '"';
        } else {
            writeLeaf(text);
        }
    }
    void write(std::int64_t number) { text_ += std::to_string(number); }
    void write(std::uint64_t number) { text_ += std::to_string(number); }
    template <typename Leaf>
    void write(const Leaf& leaf) {
        writeLeaf(leaf);
    }
    template <typename Leaf>
    void writeLeaf(const Leaf& leaf) {
        text_ += nlohmann::json(leaf).dump();
    }
    template <typename Items, typename WriteItem>
    void writeAll(char open, const Items& items, char close, const WriteItem& writeItem) {
        text_ += open;
        ++depth_;
        const char* separator = "";
        for (const auto& item : items) {
            text_ += std::exchange(separator, ",");
            beginLine();
            writeItem(item);
        }
        --depth_;
        if (!items.empty()) {
            beginLine();
        }
        text_ += close;
    }
    void beginLine() {
        if (pretty_) {
            text_ += '\n';
            text_.append(4 * depth_, ' ');
        }
    }

    const bool pretty_;
    std::size_t depth_ = 0;
    std::string text_;
};

}  // namespace

void GenericObject::toJSONStream(std::ostream& stream, bool pretty) const {
    JsonWriter writer(pretty);
    {
        const utility::MutexLock lock(mutex_);
        writer.write(values_);
    }
    // Unformatted: the stream's width, flags and locale must not change the text.
    stream.write(writer.text().data(), static_cast<std::streamsize>(writer.text().size()));
}

}  // namespace orvx::common
