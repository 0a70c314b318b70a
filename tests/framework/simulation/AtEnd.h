#pragma once

#include <functional>
#include <memory>
#include <utility>

namespace orvx::simulation {

/// Calls a function in its destructor.
class AtEnd {
  public:
    explicit AtEnd(std::function<void()> action) : action_(std::move(action)) {}
    ~AtEnd() { action_(); }
    AtEnd(const AtEnd&) = delete;
    AtEnd& operator=(const AtEnd&) = delete;

  private:
    std::function<void()> action_;
};

/// Captured by a task or handler: calls `action` when its last copy is destroyed.
inline std::shared_ptr<AtEnd> atEnd(std::function<void()> action) {
    return std::make_shared<AtEnd>(std::move(action));
}

}  // namespace orvx::simulation
