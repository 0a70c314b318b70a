#pragma once

#include <orvx/communication/HttpResponse.h>
#include <orvx/simulation/World.h>

#include <string>
#include <vector>

namespace orvx::simulation::convergence {

/// A registry that processes one request at a time. The history decides whether it processes a
/// request, and whether the client receives the answer. One thread.
class FailingRegistry {
  public:
    enum class Kind {
        NewUuids,       ///< A new entry gets a new uuid.
        UuidsOfPaths,   ///< A path always has the same uuid.
        Renames,        ///< Each PUT gives its entry another uuid.
        KeepsVersions,  ///< Each PUT makes an entry, and keeps the older ones.
    };
    struct Entry {
        std::string path;
        std::string uuid;
        /// The name of the service.
        std::string name;
        /// Whether the client received the uuid.
        bool isTold;
    };

    /// With `shares` the paths "/4" and "/5" lead to one entry.
    FailingRegistry(Kind kind, bool shares) : kind_(kind), shares_(shares) {}

    /// Processes the request. `variety` selects one of the possible answers.
    communication::HttpResponse act(const Request& request, unsigned variety);
    /// The client received this answer to a PUT.
    void told(const communication::HttpResponse& response);
    void forget(std::size_t which);
    void forgetAll() { entries_.clear(); }

    /// The path under which an entry is stored.
    std::string leadsTo(const std::string& path) const {
        return shares_ && path == "/5" ? "/4" : path;
    }
    const std::vector<Entry>& entries() const { return entries_; }

  private:
    communication::HttpResponse put(const Request& request, unsigned variety);
    /// The latest entry under this path; null if there is none.
    Entry* find(const std::string& path);

    const Kind kind_;
    const bool shares_;
    std::vector<Entry> entries_;
    unsigned uuids_ = 0;
};

/// The name of the service in a description.
std::string nameIn(const std::string& description);

}  // namespace orvx::simulation::convergence
