#pragma once

#include <functional>
#include <memory>
#include <utility>

namespace orvx::simulation {

/// Does something when it is destroyed.
class AtEnd {
  public:
    explicit AtEnd(std::function<void()> action) : action_(std::move(action)) {}
    ~AtEnd() { action_(); }
    AtEnd(const AtEnd&) = delete;
    AtEnd& operator=(const AtEnd&) = delete;

  private:
    std::function<void()> action_;
};

/// For a task or handler to capture: `action` is done when the last copy of it is destroyed.
inline std::shared_ptr<AtEnd> atEnd(std::function<void()> action) {
    return std::make_shared<AtEnd>(std::move(action));
}

}  // namespace orvx::simulation
