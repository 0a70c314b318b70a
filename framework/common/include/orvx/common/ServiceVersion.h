#pragma once

#include <orvx/utility/Export.h>

#include <string>
#include <utility>

namespace orvx::common {

/// The version of a service, a text such as "1.4.2". Empty by default, which means "not given".
class ORVX_EXPORT ServiceVersion {
  public:
    ServiceVersion() = default;
    /// Takes any text; its format is not checked.
    explicit ServiceVersion(std::string version) : version_(std::move(version)) {}

    /// Whether no version was given.
    bool isEmpty() const { return version_.empty(); }
    /// The text as it was given.
    std::string asString() const { return version_; }

    /// Whether the texts are equal: "1.0" and "1.0.0" are not.
    bool operator==(const ServiceVersion& other) const { return version_ == other.version_; }
    /// The opposite of `==`.
    bool operator!=(const ServiceVersion& other) const { return !(*this == other); }

  private:
    std::string version_;
};

}  // namespace orvx::common
