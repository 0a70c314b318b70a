#pragma once

#include "Address.h"
#include "WakeUp.h"

#include <list>
#include <memory>
#include <string>

namespace orvx::communication {

/// Looks names up, one after another, on a thread of its own ("ORVX_Resolver") that is there only
/// while it has something to do.
///
/// A look-up cannot be given up. One that is under way when the resolver is closed is left to end
/// by itself: it touches nothing of the resolver's user, and the object file with its code stays
/// loaded.
///
/// For the I/O thread only.
class Resolver {
  public:
    struct LookUp {
        std::string name;
        Resolved answer;
    };
    using LookUps = std::list<LookUp>;

    /// `wakeUp` is raised with each answer until close(). Throws std::bad_alloc.
    explicit Resolver(const WakeUp& wakeUp);
    /// As close().
    ~Resolver();
    Resolver(const Resolver&) = delete;
    Resolver& operator=(const Resolver&) = delete;

    /// Throws std::bad_alloc, or std::system_error when there is no thread; the name is not looked
    /// up then.
    void lookUp(const std::string& name);
    /// The answers that have come since.
    LookUps take();
    void close() noexcept;

  private:
    struct State;
    static void work(State& state);

    const std::shared_ptr<State> state_;
};

}  // namespace orvx::communication
