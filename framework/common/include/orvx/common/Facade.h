#pragma once

#include <memory>
#include <utility>

namespace orvx::common {

/// Gives access to an object that the reference or another owner keeps alive.
template <typename T>
class IReference {
  public:
    virtual ~IReference() = default;
    /// The object; valid as long as this reference.
    virtual T& get() = 0;
    /// Read-only access to the object.
    virtual const T& get() const = 0;
};

/// A reference that owns its object.
template <typename T>
class ReferenceOwner : public IReference<T> {
  public:
    /// `object` must not be null.
    explicit ReferenceOwner(std::unique_ptr<T> object) : object_(std::move(object)) {}

    T& get() override { return *object_; }
    const T& get() const override { return *object_; }

  private:
    std::unique_ptr<T> object_;
};

/// A handle to a shared object. Copies of a facade refer to the same object. A derived class may
/// give copying another meaning and documents it.
template <typename T>
class Facade {
  public:
    /// `reference` must not be null.
    explicit Facade(std::shared_ptr<IReference<T>> reference) : reference_(std::move(reference)) {}

  protected:
    ~Facade() = default;
    Facade(const Facade&) = default;
    Facade& operator=(const Facade&) = default;

    /// The shared object; valid as long as a copy of this facade.
    T& object() { return reference_->get(); }
    /// Read-only access to the shared object.
    const T& object() const { return std::as_const(*reference_).get(); }

  private:
    std::shared_ptr<IReference<T>> reference_;
};

}  // namespace orvx::common
