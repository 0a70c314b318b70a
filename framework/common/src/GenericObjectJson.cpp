// Writes generic objects as JSON. Only this file uses the JSON library.
// Entered by any thread. The values are written under the object's lock; nothing here calls back
// into the object.

#include <orvx/common/GenericObject.h>

#include <nlohmann/json.hpp>

#include <cstdint>
#include <cstring>
#include <ostream>
#include <string_view>

namespace orvx::common {

namespace {

/// Whether each of eight bytes can stand in a JSON text without an escape: ASCII from the space on,
/// neither a quote nor a backslash. Any other byte sets its highest bit in one of the four words.
bool arePlain(std::uint64_t bytes) {
    constexpr std::uint64_t kOnes = 0x0101010101010101;
    constexpr std::uint64_t kHighBits = kOnes * 0x80;
    const std::uint64_t notAscii = bytes;
    const std::uint64_t controls = bytes - kOnes * ' ';
    const std::uint64_t quotes = (bytes ^ (kOnes * '"')) - kOnes;
    const std::uint64_t backslashes = (bytes ^ (kOnes * '\\')) - kOnes;
    return ((notAscii | controls | quotes | backslashes) & kHighBits) == 0;
}

/// Whether a text needs no escape in JSON. Most texts need none, and the JSON library takes fifty
/// times as long to write one.
bool isPlain(std::string_view text) {
    constexpr std::uint64_t kBlanks = 0x2020202020202020;
    for (; text.size() >= sizeof kBlanks; text.remove_prefix(sizeof kBlanks)) {
        std::uint64_t bytes = 0;
        std::memcpy(&bytes, text.data(), sizeof bytes);
        if (!arePlain(bytes)) {
            return false;
        }
    }
    std::uint64_t rest = kBlanks;
    std::memcpy(&rest, text.data(), text.size());
    return arePlain(rest);
}

/// A text that grows. Appending is inlined, because most pieces of a description have a few bytes
/// only.
class GrowingText {
  public:
    void append(char character) { *end(1) = character, ++size_; }
    void append(std::string_view piece) {
        std::memcpy(end(piece.size()), piece.data(), piece.size());
        size_ += piece.size();
    }
    void appendQuoted(std::string_view piece) {
        char* const quoted = end(piece.size() + 2);
        quoted[0] = '"';
        std::memcpy(quoted + 1, piece.data(), piece.size());
        quoted[piece.size() + 1] = '"';
        size_ += piece.size() + 2;
    }
    std::string_view view() const { return {bytes_.data(), size_}; }

  private:
    /// Makes room for `count` bytes at the end and returns their position.
    char* end(std::size_t count) {
        if (bytes_.size() - size_ < count) {
            bytes_.resize(2 * (size_ + count));
        }
        return bytes_.data() + size_;
    }

    static constexpr std::size_t kUsualSize = 512;
    std::string bytes_ = std::string(kUsualSize, '\0');
    std::size_t size_ = 0;
};

/// Writes lists and objects itself and leaves scalar values to the JSON library. The library's own
/// lists and objects allocate memory in their destructors and terminate the process if there is
/// none.
class JsonWriter {
  public:
    explicit JsonWriter(bool pretty) : pretty_(pretty) {}

    /// Throws a std::exception for a text that is not valid UTF-8.
    void write(const GenericObjectValue& value) {
        std::visit([this](const auto& content) { write(content); }, value.data());
    }
    void write(const GenericObjectValue::Object& object) {
        writeAll('{', object, '}', [this](const auto& member) {
            write(member.first);
            text_.append(pretty_ ? ": " : ":");
            write(member.second);
        });
    }
    std::string_view text() const { return text_.view(); }

  private:
    void write(const GenericObjectValue::List& list) {
        writeAll('[', list, ']', [this](const auto& value) { write(value); });
    }
    void write(const std::string& text) {
        if (isPlain(text)) {
            text_.appendQuoted(text);
        } else {
            writeLeaf(text);
        }
    }
    void write(std::int64_t number) { text_.append(std::to_string(number)); }
    void write(std::uint64_t number) { text_.append(std::to_string(number)); }
    template <typename Leaf>
    void write(const Leaf& leaf) {
        writeLeaf(leaf);
    }
    template <typename Leaf>
    void writeLeaf(const Leaf& leaf) {
        text_.append(nlohmann::json(leaf).dump());
    }
    template <typename Items, typename WriteItem>
    void writeAll(char open, const Items& items, char close, const WriteItem& writeItem) {
        text_.append(open);
        ++depth_;
        bool isFirst = true;
        for (const auto& item : items) {
            if (!std::exchange(isFirst, false)) {
                text_.append(',');
            }
            beginLine();
            writeItem(item);
        }
        --depth_;
        if (!items.empty()) {
            beginLine();
        }
        text_.append(close);
    }
    void beginLine() {
        if (pretty_) {
            text_.append('\n');
            text_.append(std::string(4 * depth_, ' '));
        }
    }

    const bool pretty_;
    std::size_t depth_ = 0;
    GrowingText text_;
};

}  // namespace

void GenericObject::toJSONStream(std::ostream& stream, bool pretty) const {
    JsonWriter writer(pretty);
    {
        const utility::MutexLock lock(mutex_);
        writer.write(values_);
    }
    // Unformatted output: the stream's width, flags and locale must not change the text.
    const std::string_view text = writer.text();
    stream.write(text.data(), static_cast<std::streamsize>(text.size()));
}

}  // namespace orvx::common
