#pragma once

#include <string>
#include <vector>

#include "Entry.h"
#include "FileError.h"
#include "Sqlite.h"

namespace orvx::registry {

/// Entries in a file. A change that returned is there after the process was killed at any moment;
/// one that threw a FileError did not take place. Checks are not kept.
///
/// Thread-safety: none. One process at a time: the file is locked.
class EntryFile {
  public:
    /// Throws a FileError when the file is in use, damaged or something else.
    explicit EntryFile(const std::string& path);

    /// In the order of their creation.
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
