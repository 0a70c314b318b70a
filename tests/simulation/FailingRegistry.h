#pragma once

#include <orvx/communication/HttpResponse.h>
#include <orvx/simulation/World.h>

#include <string>
#include <vector>

namespace orvx::simulation::convergence {

/// A registry, asked for one request at a time: whether it acts, and whether the client hears of
/// it, is up to the history. One thread.
class FailingRegistry {
  public:
    enum class Kind {
        NewUuids,       ///< An entry that is new gets a uuid that is new.
        UuidsOfPaths,   ///< A path has the same uuid always.
        Renames,        ///< Each PUT gives its entry another uuid.
        KeepsVersions,  ///< Each PUT makes an entry, and keeps the older ones.
    };
    struct Entry {
        std::string path;
        std::string uuid;
        /// Of the service.
        std::string name;
        /// The client was told the uuid.
        bool isTold;
    };

    /// `shares`: the paths "/4" and "/5" lead to one entry.
    FailingRegistry(Kind kind, bool shares) : kind_(kind), shares_(shares) {}

    /// Does what the request asks for. The answers to one request come in `variety`.
    communication::HttpResponse act(const Request& request, unsigned variety);
    /// The client was told the answer to this PUT.
    void told(const Request& request);
    void forget(std::size_t which);
    void forgetAll() { entries_.clear(); }

    /// The path that an entry stands under.
    std::string leadsTo(const std::string& path) const {
        return shares_ && path == "/5" ? "/4" : path;
    }
    const std::vector<Entry>& entries() const { return entries_; }

  private:
    communication::HttpResponse put(const Request& request, unsigned variety);
    /// The youngest one under this path.
    Entry* find(const std::string& path);

    const Kind kind_;
    const bool shares_;
    std::vector<Entry> entries_;
    unsigned uuids_ = 0;
};

/// The name of the service in a description.
std::string nameIn(const std::string& description);

}  // namespace orvx::simulation::convergence
