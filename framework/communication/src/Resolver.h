#pragma once

#include "Address.h"
#include "WakeUp.h"

#include <list>
#include <memory>
#include <string>

namespace orvx::communication {

/// Looks names up, one after another, on a thread of its own ("ORVX_Resolver"), which exists only
/// while there are names to look up.
///
/// A look-up cannot be cancelled. A look-up that is running at close() ends by itself: it does not
/// use the owner of the resolver, and the object file with its code stays loaded.
///
/// For the I/O thread only.
class Resolver {
  public:
    struct LookUp {
        std::string name;
        Resolved answer;
    };
    using LookUps = std::list<LookUp>;

    /// `wakeUp` is raised for each answer until close(). Throws std::bad_alloc.
    explicit Resolver(const WakeUp& wakeUp);
    /// Calls close().
    ~Resolver();
    Resolver(const Resolver&) = delete;
    Resolver& operator=(const Resolver&) = delete;

    /// Queues a look-up, unless the name is waiting or being looked up already: that answer is for
    /// this call too. Throws std::bad_alloc, or std::system_error if the thread cannot be made; the
    /// name is not looked up then.
    void lookUp(const std::string& name);
    /// The answers since the last call.
    LookUps take();
    void close() noexcept;

  private:
    struct State;
    static void work(State& state);

    const std::shared_ptr<State> state_;
};

}  // namespace orvx::communication
