#pragma once

#include <string>
#include <vector>

#include "Entry.h"
#include "FileContent.h"
#include "Sqlite.h"

namespace orvx::registry {

/// Keeps entries in a file. A change that has returned survives a kill of the process at any later
/// time. A change that threw a FileError did not take place. Checks are not stored.
///
/// Thread-safety: none. One process at a time: the file is locked.
class EntryFile {
  public:
    /// Throws a FileError if the file is in use, damaged, or of another program.
    explicit EntryFile(const std::string& path);

    /// Returns the entries in the order of their creation.
    std::vector<Entry> load();

    void add(const Entry& entry);
    void replace(const std::string& uuid, const std::string& service, const std::string& owner);
    void remove(const std::vector<std::string>& uuids);
    void clear();

  private:
    void requireOurs();

    const std::string path_;
    sqlite::Database database_;
};

}  // namespace orvx::registry
